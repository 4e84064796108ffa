#include "tools/doctor/report.h"

#include <gtest/gtest.h>

#include "tools/doctor/command.h"

namespace {

TEST(DoctorReport, IsAsBadAsItsWorstLine)
{
    doctor_report report;
    EXPECT_EQ(doctor_worst(report.lines()), doctor_grade::ok);
    report.ok("a");
    EXPECT_EQ(doctor_worst(report.lines()), doctor_grade::ok);
    report.fail("b", "mend it");
    report.warn("c", "mend it");
    EXPECT_EQ(doctor_worst(report.lines()), doctor_grade::fail);
}

TEST(DoctorReport, HasALineForEachThingAndOneForItsRemedy)
{
    doctor_report report;
    report.ok("a");
    report.warn("b\n", "mend\x1b it");
    report.fail("c", "mend it");
    EXPECT_EQ(doctor_to_text(report.lines(), velmctl_paint{false}), "OK    a\n"
                                                                    "WARN  b?\n"
                                                                    "      mend? it\n"
                                                                    "FAIL  c\n"
                                                                    "      mend it\n");
    EXPECT_EQ(doctor_to_text({}, velmctl_paint{false}), "");
}

TEST(DoctorReport, IsCountedAtItsEnd)
{
    doctor_report report;
    report.ok("a");
    EXPECT_EQ(doctor_summary(report.lines()), "nothing is wrong");
    report.warn("b", "mend it");
    EXPECT_EQ(doctor_summary(report.lines()), "1 warning");
    report.fail("c", "mend it");
    report.fail("d", "mend it");
    EXPECT_EQ(doctor_summary(report.lines()), "2 failures, 1 warning");
}

} // namespace
