#include "google/answer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "fakes/captured_log.h"

namespace {

struct answer_case {
    const char *name;
    int code;
    const char *body;
    const char *error; // null: it is taken
};

class GoogleAnswer : public testing::TestWithParam<answer_case> {};

TEST_P(GoogleAnswer, IsTakenOrItsFaultLogged)
{
    const captured_log log;
    const answer_case &given = GetParam();
    const std::size_t length = given.body == nullptr ? 0 : std::strlen(given.body);
    const json_ptr answer =
        velm_google_answer_parse(given.code, given.body, length, "a_module", "f", nullptr);
    EXPECT_EQ(answer != nullptr, given.error == nullptr);
    ASSERT_FALSE(log.lines().empty());
    EXPECT_EQ(log.lines()[0], "DEBUG a_module - f [(nil)] - code: " + std::to_string(given.code));
    EXPECT_EQ(log.count("ERROR"), given.error == nullptr ? 0 : 1);
    if (given.error != nullptr) {
        EXPECT_EQ(log.lines().back(), std::string{"ERROR a_module - f [(nil)] - "} + given.error);
    }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Answers, GoogleAnswer, testing::Values(
    answer_case{"Object",      200, R"({"a":1})", nullptr},
    answer_case{"EmptyObject", 200, "{}",         nullptr},
    answer_case{"Created",     201, "{}",         "http request failed: 201"},
    answer_case{"Redirect",    302, "{}",         "http request failed: 302"},
    answer_case{"BadRequest",  400, "{}",         "http request failed: 400"},
    answer_case{"TooMany",     429, "{}",         "http request failed: 429"},
    answer_case{"TimedOut",    -1,  nullptr,      "http request failed: -1"},
    answer_case{"Refused",     0,   nullptr,      "http request failed: 0"},
    answer_case{"NoBody",      200, nullptr,      "empty response"},
    answer_case{"EmptyBody",   200, "",           "empty response"},
    answer_case{"NoJson",      200, "<html>",     "parse error"},
    answer_case{"CutJson",     200, R"({"a":)",   "parse error"},
    answer_case{"List",        200, "[1]",        "parse error"},
    answer_case{"Number",      200, "12",         "parse error"}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

TEST(GoogleAnswerBody, IsTraced)
{
    const captured_log log;
    const std::string body = R"({"a":1})";
    const json_ptr answer =
        velm_google_answer_parse(200, body.c_str(), body.size(), "a_module", "f", nullptr);
    EXPECT_EQ(log.lines().back(), "TRACE a_module - f [(nil)] - body: " + body);
}

} // namespace
