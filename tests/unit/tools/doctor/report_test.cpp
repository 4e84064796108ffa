#include "tools/doctor/report.h"

#include <gtest/gtest.h>

#include "tools/doctor/command.h"
#include "tools/doctor/json.h"

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

TEST(DoctorReport, InJsonHasOneShapeForAnyNumberOfFindings)
{
    constexpr std::int64_t moment = 1763813590123;
    doctor_report report;
    EXPECT_EQ(doctor_to_json(report.lines(), moment),
              "{\"version\":1,\"now\":\"2025-11-22T12:13:10.123Z\",\"findings\":[]}\n");
    report.ok("HTTPS: port 1 is free");
    report.warn("name: a: b\x1b", "mend\n it");
    EXPECT_EQ(
        doctor_to_json(report.lines(), moment),
        "{\"version\":1,\"now\":\"2025-11-22T12:13:10.123Z\",\"findings\":["
        "{\"level\":\"OK\",\"subject\":\"HTTPS\",\"text\":\"port 1 is free\",\"remedy\":null},"
        "{\"level\":\"WARN\",\"subject\":\"name\",\"text\":\"a: b\\u001b\",\"remedy\":\"mend\\n "
        "it\"}]}\n");
}

} // namespace
