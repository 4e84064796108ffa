#include "control/exposition.h"

#include <gtest/gtest.h>

namespace {

TEST(Exposition, HasHelpAndTypeOnceAndThenTheSamples)
{
    control_exposition text;
    text.begin("velm_a_total", control_metric_kind::counter, "What a is.");
    text.label("route", "/info");
    text.label("status", "200");
    text.sample(7);
    text.sample(8);
    text.begin("velm_b", control_metric_kind::gauge, "What b is.");
    text.sample_seconds(1.5);
    EXPECT_EQ(text.take(), "# HELP velm_a_total What a is.\n"
                           "# TYPE velm_a_total counter\n"
                           "velm_a_total{route=\"/info\",status=\"200\"} 7\n"
                           "velm_a_total 8\n"
                           "# HELP velm_b What b is.\n"
                           "# TYPE velm_b gauge\n"
                           "velm_b 1.500000\n");
}

TEST(Exposition, ALabelFromOutsideCannotLeaveItsQuotesOrReachATerminal)
{
    control_exposition text;
    text.begin("a", control_metric_kind::gauge, "A.");
    text.label("name", "\"}\\\n\x1b[31m\x7f\xff\xc3\xa4");
    text.sample(1);
    const std::string all = text.take();
    EXPECT_EQ(all.substr(all.find("a{")), "a{name=\"\\\"}\\\\\\n?[31m?\xef\xbf\xbd\xc3\xa4\"} 1\n");
}

} // namespace
