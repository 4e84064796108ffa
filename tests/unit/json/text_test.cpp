#include "json/text.h"

#include <gtest/gtest.h>

#include "handles/cjson.h"

namespace {

using namespace std::string_view_literals;

TEST(JsonText, IsEmptyWithoutAText)
{
    const json_ptr object{cJSON_Parse(R"({"a": "text", "n": 5, "null": null, "o": {}})")};
    EXPECT_STREQ(json_text_or_empty(object.get(), "a"), "text");
    for (const char *name : {"A", "b", "n", "null", "o"}) {
        EXPECT_STREQ(json_text_or_empty(object.get(), name), "") << name;
    }
    EXPECT_STREQ(json_text_or_empty(nullptr, "a"), "");
}

struct nul_case {
    const char *name;
    std::string_view json;
    bool has_nul;
};

class JsonNul : public testing::TestWithParam<nul_case> {};

TEST_P(JsonNul, IsSeenInAString)
{
    EXPECT_EQ(json_has_nul_in_string(GetParam().json), GetParam().has_nul);
}

const nul_case cases[] = {
    {"None", R"({"a": "b"})", false},
    {"Escaped", R"("x\u0000y")", true},
    {"EscapedInAName", R"({"a\u0000": 1})", true},
    {"Raw", "\"x\0y\""sv, true},
    {"RawBetweenTheValues", "[1,\0 2]"sv, false},
    {"BehindAnEscapedQuote", R"("\"\u0000")", true},
    {"BehindAnEscapedBackslash", R"("\\\u0000")", true},
    {"BackslashAndText", R"("\\u0000")", false},
    {"OtherCharacter", R"("\u0001")", false},
    {"InASecondString", R"(["a", "\u0000"])", true},
    {"EscapeCutShort", R"("\u000)", false},
    {"BackslashAtTheEnd", "\"\\", false},
};

INSTANTIATE_TEST_SUITE_P(Texts, JsonNul, testing::ValuesIn(cases),
                         [](const auto &row) { return std::string{row.param.name}; });

} // namespace
