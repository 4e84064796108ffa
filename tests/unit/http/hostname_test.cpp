#include "http/hostname.h"

#include <gtest/gtest.h>

#include "test_certificates.h"

namespace {

using result = http_client_hostname_result;

struct match_case {
    const char *name, *pattern, *host;
    bool matches;
};
class HostnameMatchTable : public testing::TestWithParam<match_case> {};

TEST_P(HostnameMatchTable, FollowsTheTable)
{
    EXPECT_EQ(http_client_hostname_match(GetParam().pattern, GetParam().host), GetParam().matches);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Names, HostnameMatchTable, testing::Values(
    match_case{"Equal",                      "a.example.test",      "a.example.test",      true},
    match_case{"EqualWithoutCase",           "A.eXample.test",      "a.Example.TEST",      true},
    match_case{"OnlyAsciiIsFolded",          "\xc4.example.test",   "\xe4.example.test",   false},
    match_case{"BracketIsNotBraceFolded",    "[.example.test",      "{.example.test",      false},
    match_case{"OtherName",                  "a.example.test",      "b.example.test",      false},
    match_case{"PrefixIsNoMatch",            "a.example.test",      "a.example.tes",       false},
    match_case{"EmptyPattern",               "",                    "a.example.test",      false},
    match_case{"EmptyHost",                  "a.example.test",      "",                    false},
    match_case{"BothEmpty",                  "",                    "",                    false},
    match_case{"StarMatchesOneLabel",        "*.example.test",      "a.example.test",      true},
    match_case{"StarWithoutCase",            "*.EXAMPLE.test",      "a.example.TEST",      true},
    match_case{"StarIsNotNothing",           "*.example.test",      "example.test",        false},
    match_case{"StarIsNotAnEmptyLabel",      "*.example.test",      ".example.test",       false},
    match_case{"StarIsNotTwoLabels",         "*.example.test",      "a.b.example.test",    false},
    match_case{"StarAboveATopLevel",         "*.test",              "a.test",              false},
    match_case{"StarAboveATopLevelItself",   "*.test",              "*.test",              true},
    match_case{"StarAlone",                  "*",                   "a",                   false},
    match_case{"StarAloneItself",            "*",                   "*",                   true},
    match_case{"StarInsideALabel",           "f*o.example.test",    "fxo.example.test",    true},
    match_case{"StarForSeveralCharacters",   "f*o.example.test",    "fabco.example.test",  true},
    match_case{"StarForNoCharacter",         "f*o.example.test",    "fo.example.test",     false},
    match_case{"OtherBeginning",             "f*o.example.test",    "gxo.example.test",    false},
    match_case{"OtherEnd",                   "f*o.example.test",    "fxp.example.test",    false},
    match_case{"StarAtTheEnd",               "f*.example.test",     "foo.example.test",    true},
    match_case{"StarAtTheEndForNothing",     "f*.example.test",     "f.example.test",      false},
    match_case{"StarInTheSecondLabel",       "a.*.test.com",        "a.b.test.com",        false},
    match_case{"ALabelOfInternationalForm",  "xn--*.example.test",  "xn--a.example.test",  false},
    match_case{"InternationalFormItself",    "xn--*.example.test",  "xn--*.example.test",  true},
    match_case{"InternationalFormUpperCase", "XN--*.example.test",  "xn--a.example.test",  false},
    match_case{"HostWithoutDot",             "*.example.test",      "localhost",           false},
    match_case{"OtherDomain",                "*.example.test",      "a.example.com",       false},
    match_case{"SecondStarIsACharacter",     "a**.example.test",    "abc.example.test",    false},
    match_case{"SecondStarMatchesAStar",     "a**.example.test",    "ab*.example.test",    true}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

TEST(HostnameMatch, ANullViewMatchesNothing)
{
    EXPECT_FALSE(http_client_hostname_match({}, "a.example.test"));
    EXPECT_FALSE(http_client_hostname_match("a.example.test", {}));
}

result validate(const test_certificate_wish &wish, const char *host = "a.example.test")
{
    const test_certificate made = make_test_certificate(wish);
    return http_client_validate_hostname(host, made.cert.get());
}

TEST(HostnameValidate, NeedsAHostAndACertificate)
{
    const test_certificate made = make_test_certificate({.common_name = "a.example.test"});
    EXPECT_EQ(http_client_validate_hostname(nullptr, made.cert.get()), result::Error);
    EXPECT_EQ(http_client_validate_hostname("a.example.test", nullptr), result::Error);
}

TEST(HostnameValidate, FindsAnyOfTheDnsNames)
{
    EXPECT_EQ(validate({.dns_names = {"b.example.test", "A.example.test"}}), result::MatchFound);
    EXPECT_EQ(validate({.dns_names = {"b.example.test"}}), result::MatchNotFound);
    EXPECT_EQ(validate({.dns_names = {"*.example.test"}}), result::MatchFound);
}

TEST(HostnameValidate, WithAlternativeNamesTheCommonNameDoesNotCount)
{
    EXPECT_EQ(validate({.common_name = "a.example.test", .dns_names = {"b.example.test"}}),
              result::MatchNotFound);
}

TEST(HostnameValidate, AlternativeNamesOfWhichNoneIsADnsNameMatchNothingEvenIfTheCommonNameDoes)
{
    EXPECT_EQ(validate({.common_name = "a.example.test", .emails = {"a.example.test"}}),
              result::MatchNotFound);
}

TEST(HostnameValidate, AnEmptyListOfAlternativeNamesMatchesNothing)
{
    EXPECT_EQ(validate({.common_name = "a.example.test", .empty_alternative_names = true}),
              result::MatchNotFound);
}

TEST(HostnameValidate, UnreadableAlternativeNamesAreMalformedAndTheCommonNameDoesNotStandIn)
{
    EXPECT_EQ(validate({.common_name = "a.example.test", .broken_alternative_names = true}),
              result::MalformedCertificate);
}

TEST(HostnameValidate, ANulInADnsNameIsMalformed)
{
    EXPECT_EQ(validate({.dns_names = {std::string{"a.example.test\0.evil.test", 24}}}),
              result::MalformedCertificate);
}

TEST(HostnameValidate, ANulStopsTheWalkButAMatchBeforeItCounts)
{
    const std::string with_nul{"a.example.test\0.evil.test", 24};
    EXPECT_EQ(validate({.dns_names = {with_nul, "a.example.test"}}), result::MalformedCertificate);
    EXPECT_EQ(validate({.dns_names = {"a.example.test", with_nul}}), result::MatchFound);
}

TEST(HostnameValidate, ANulInANameOfAnotherKindIsNotLookedAt)
{
    EXPECT_EQ(validate({.dns_names = {"a.example.test"}, .emails = {std::string{"a\0b", 3}}}),
              result::MatchFound);
}

TEST(HostnameValidate, WithoutAlternativeNamesTheCommonNameCounts)
{
    EXPECT_EQ(validate({.common_name = "a.example.test"}), result::MatchFound);
    EXPECT_EQ(validate({.common_name = "*.example.test"}), result::MatchFound);
    EXPECT_EQ(validate({.common_name = "b.example.test"}), result::MatchNotFound);
}

TEST(HostnameValidate, OnlyTheFirstCommonNameCounts)
{
    test_certificate made = make_test_certificate({.common_name = "b.example.test"});
    add_subject_text(X509_get_subject_name(made.cert.get()), "CN", "a.example.test");
    EXPECT_EQ(http_client_validate_hostname("a.example.test", made.cert.get()),
              result::MatchNotFound);
    EXPECT_EQ(http_client_validate_hostname("b.example.test", made.cert.get()), result::MatchFound);
}

TEST(HostnameValidate, WithoutAnyNameItIsAnError)
{
    EXPECT_EQ(validate({}), result::Error);
}

TEST(HostnameValidate, ANulInTheCommonNameIsMalformed)
{
    EXPECT_EQ(validate({.common_name = std::string{"a.example.test\0.evil.test", 24}}),
              result::MalformedCertificate);
}

TEST(HostnameResultName, IsTheWordOfTheLog)
{
    EXPECT_STREQ(http_client_hostname_result_name(result::MatchNotFound), "MatchNotFound");
    EXPECT_STREQ(http_client_hostname_result_name(result::NoSANPresent), "NoSANPresent");
    EXPECT_STREQ(http_client_hostname_result_name(result::MalformedCertificate),
                 "MalformedCertificate");
    EXPECT_STREQ(http_client_hostname_result_name(result::Error), "Error");
    EXPECT_STREQ(http_client_hostname_result_name(static_cast<result>(17)), "Unknown");
}

} // namespace
