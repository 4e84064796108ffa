#include "check/finding.h"

#include <gtest/gtest.h>

#include <string>

namespace {

check_finding one(std::string name, unsigned line, check_severity severity, std::string what)
{
    return {{std::move(name), line}, severity, std::move(what)};
}

TEST(Finding, HasItsPlaceItsLineAndTheReason)
{
    EXPECT_EQ(check_finding_text(one("/a.conf", 7, check_severity::error, "wrong")),
              "/a.conf:7: wrong");
    EXPECT_EQ(check_finding_text(one("/a.pem", 0, check_severity::error, "wrong")),
              "/a.pem: wrong");
    EXPECT_EQ(check_finding_text(one("/a.conf", 7, check_severity::warning, "odd")),
              "/a.conf:7: warning: odd");
}

TEST(Finding, HasNoControlCharacterAndNothingThatIsNoText)
{
    EXPECT_EQ(check_finding_text(one("/a\n\x1b[2J", 0, check_severity::error, "b\x7f\xff\xc2\x9b")),
              "/a??[2J: b???");
    EXPECT_EQ(check_finding_text(one("/\xc3\xa4", 0, check_severity::error, "\xe2\x82\xac")),
              "/\xc3\xa4: \xe2\x82\xac");
}

TEST(Finding, OnlyErrorsMakeAConfigurationBad)
{
    EXPECT_TRUE(check_is_good({}));
    const auto warning = one("/a", 1, check_severity::warning, "odd");
    EXPECT_TRUE(check_is_good({warning}));
    EXPECT_FALSE(check_is_good({warning, one("/a", 1, check_severity::error, "wrong")}));
}

TEST(Finding, AreKeptInTheirOrderAndTakenOnce)
{
    check_findings findings;
    findings.error({"/a", 1}, "%s is %d", "one", 1);
    findings.warning({"/a", 2}, "%s", "two");
    const auto all = findings.take();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(check_finding_text(all[0]), "/a:1: one is 1");
    EXPECT_EQ(check_finding_text(all[1]), "/a:2: warning: two");
    EXPECT_TRUE(findings.take().empty());
}

TEST(Finding, ALongTextIsCut)
{
    check_findings findings;
    findings.error({"/a", 0}, "%s", std::string(5000, 'x').c_str());
    EXPECT_LE(findings.take().front().what.size(), 1024U);
}

TEST(Quoted, HasQuotesAroundWhatCanBePrinted)
{
    EXPECT_EQ(check_quoted("a b"), "\"a b\"");
    EXPECT_EQ(check_quoted("a\tb\xff"), "\"a?b?\"");
    EXPECT_EQ(check_quoted(std::string(100, 'x')), '"' + std::string(100, 'x') + '"');
    EXPECT_EQ(check_quoted(std::string(101, 'x')), '"' + std::string(100, 'x') + "...\"");
}

} // namespace
