#include "control/metrics.h"

#include <gmock/gmock.h>

#include <regex>
#include <string>

#include "fakes/fake_nvram.h"
#include "metrics/metrics.h"

namespace {

using testing::HasSubstr;

/// Every value of a label is one word, so that nobody has to remember which of them has a blank.
TEST(ControlMetrics, HaveLabelsWithoutBlanks)
{
    fake_nvram = {}; // no phone is paired
    metrics_count_reply("/location", 200);
    metrics_count_push(404);
    const std::string text = control_metrics_text();
    const std::regex label{"[{,][a-z]+=\"([^\"]*)\""};
    int labels = 0;
    for (std::sregex_iterator at{text.begin(), text.end(), label}, end; at != end; ++at) {
        EXPECT_TRUE(std::regex_match((*at)[1].str(), std::regex{"[a-z0-9_./]+"})) << (*at)[1];
        ++labels;
    }
    EXPECT_GT(labels, 20);
    EXPECT_THAT(text, HasSubstr("velmd_rounds_total{state=\"client_gone\"} 0\n"));
}

} // namespace
