#include "control/request.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr char get[] = "GET /v1/status HTTP/1.1\r\n";

TEST(ControlRequest, OfCurlIsRead)
{
    const std::string text = std::string{get} + "Host: localhost\r\nUser-Agent: curl/7.88.1\r\n"
                                                "Accept: */*\r\n\r\n";
    const control_head head = control_request_read(text);
    EXPECT_EQ(head.state, control_head_state::whole);
    EXPECT_TRUE(head.request.is_get);
    EXPECT_EQ(head.request.path, "/v1/status");
    EXPECT_EQ(head.request.query, "");
}

TEST(ControlRequest, HasItsQueryApart)
{
    const control_head head =
        control_request_read("GET /v1/rounds?wait=5&after=7?8 HTTP/1.0\r\n\r\n");
    EXPECT_EQ(head.request.path, "/v1/rounds");
    EXPECT_EQ(head.request.query, "wait=5&after=7?8");
}

TEST(ControlRequest, EveryBeginningOfItIsIncomplete)
{
    const std::string text = std::string{get} + "Host: a\r\nX: \t\r\n\r\n";
    for (std::size_t size = 0; size < text.size(); ++size) {
        EXPECT_EQ(control_request_read(text.substr(0, size)).state, control_head_state::incomplete)
            << size;
    }
    EXPECT_EQ(control_request_read(text).state, control_head_state::whole);
}

struct head_case {
    const char *name;
    std::string text;
    control_head_state state;
};
class ControlHead : public testing::TestWithParam<head_case> {};

TEST_P(ControlHead, IsJudged)
{
    EXPECT_EQ(control_request_read(GetParam().text).state, GetParam().state);
}

constexpr auto whole = control_head_state::whole;
constexpr auto bad = control_head_state::bad;
constexpr auto incomplete = control_head_state::incomplete;

// clang-format off
INSTANTIATE_TEST_SUITE_P(Texts, ControlHead, testing::Values(
    head_case{"LinesMayEndWithLfAlone", "GET / HTTP/1.1\nHost: a\n\n", whole},
    head_case{"WhatFollowsMayBeAnything", std::string{"GET / HTTP/1.1\r\n\r\n\0\x01", 20}, whole},
    head_case{"AnotherMethodIsARequestToo", "BREW /pot HTTP/1.1\r\n\r\n", whole},
    head_case{"Nothing", "", incomplete},
    head_case{"AnEmptyLineInFront", "\r\nGET / HTTP/1.1\r\n\r\n", bad},
    head_case{"TwoWords", "GET /\r\n\r\n", bad},
    head_case{"AnotherVersion", "GET / HTTP/2.0\r\n\r\n", bad},
    head_case{"AVersionWithMore", "GET / HTTP/1.10\r\n\r\n", bad},
    head_case{"NoPath", "GET v1/status HTTP/1.1\r\n\r\n", bad},
    head_case{"ABlankInThePath", "GET /v1 /status HTTP/1.1\r\n\r\n", bad},
    head_case{"ABytePastAsciiInThePath", "GET /\xc3\xa4 HTTP/1.1\r\n\r\n", bad},
    head_case{"NoMethod", " / HTTP/1.1\r\n\r\n", bad},
    head_case{"AMethodThatIsNoWord", "G(T / HTTP/1.1\r\n\r\n", bad},
    head_case{"AHeaderWithoutColon", "GET / HTTP/1.1\r\nHost\r\n\r\n", bad},
    head_case{"AHeaderWithoutName", "GET / HTTP/1.1\r\n: a\r\n\r\n", bad},
    head_case{"AFoldedHeader", "GET / HTTP/1.1\r\nA: b\r\n c\r\n\r\n", bad},
    head_case{"AStrayCr", "GET / HTTP/1.1\r\nA: b\rc\r\n\r\n", bad},
    head_case{"ANulBeforeTheLineEnds", std::string{"GE\0T", 4}, bad},
    head_case{"TheHelloOfTls", "\x16\x03\x01", bad}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

struct wait_case {
    const char *name, *query;
    bool good;
    std::uint64_t seconds = 0;
    std::optional<std::uint64_t> after = std::nullopt;
};
class ControlWait : public testing::TestWithParam<wait_case> {};

TEST_P(ControlWait, IsRead)
{
    const auto wanted = control_wait_read(GetParam().query);
    ASSERT_EQ(wanted.has_value(), GetParam().good);
    if (wanted) {
        EXPECT_EQ(wanted->seconds, GetParam().seconds);
        EXPECT_EQ(wanted->after, GetParam().after);
    }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Queries, ControlWait, testing::Values(
    wait_case{"None", "", true},
    wait_case{"OneSecond", "wait=1", true, 1},
    wait_case{"AMinute", "wait=60", true, 60},
    wait_case{"Both", "wait=2&after=12", true, 2, 12},
    wait_case{"InTheOtherOrder", "after=0&wait=2", true, 2, 0},
    wait_case{"AfterAlone", "after=18446744073709551615", true, 0, UINT64_MAX},
    wait_case{"TooLargeANumber", "after=18446744073709551616", false},
    wait_case{"NoSecond", "wait=0", false},
    wait_case{"MoreThanAMinute", "wait=61", false},
    wait_case{"NoNumber", "wait=", false},
    wait_case{"ASignedNumber", "after=-1", false},
    wait_case{"ANumberAndMore", "wait=5s", false},
    wait_case{"Twice", "wait=5&wait=5", false},
    wait_case{"TwiceAfter", "after=5&after=5", false},
    wait_case{"AnotherName", "until=5", false},
    wait_case{"NoValue", "wait", false},
    wait_case{"AnEmptyOneAtTheEnd", "wait=5&", false},
    wait_case{"AnEmptyOneInFront", "&wait=5", false}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

} // namespace
