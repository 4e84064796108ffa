#include "text/utf8.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_view_literals;

struct utf8_case {
    const char *name;
    std::string_view text;
    std::size_t length; // of the sequence at its begin
};

class Utf8 : public testing::TestWithParam<utf8_case> {};

TEST_P(Utf8, BeginsWithASequenceOfThisLength)
{
    EXPECT_EQ(utf8_length(GetParam().text), GetParam().length);
}

const utf8_case cases[] = {
    {"NoText", "", 0},
    {"Nul", "\0"sv, 1},
    {"Letter", "ab", 1},
    {"LastOfOneByte", "\x7f", 1},
    {"FirstOfTwoBytes", "\xc2\x80", 2},
    {"LastOfTwoBytes", "\xdf\xbf", 2},
    {"FirstOfThreeBytes", "\xe0\xa0\x80", 3},
    {"LastBeforeTheSurrogates", "\xed\x9f\xbf", 3},
    {"FirstBehindTheSurrogates", "\xee\x80\x80", 3},
    {"LastOfThreeBytes", "\xef\xbf\xbf", 3},
    {"FirstOfFourBytes", "\xf0\x90\x80\x80", 4},
    {"LastCodePoint", "\xf4\x8f\xbf\xbf", 4},
    {"OthersBehindIt", "\xc3\xa9\xff", 2},
    {"LoneContinuation", "\x80", 0},
    {"OverlongTwo", "\xc1\xbf", 0},
    {"OverlongThree", "\xe0\x9f\xbf", 0},
    {"OverlongFour", "\xf0\x8f\xbf\xbf", 0},
    {"FirstSurrogate", "\xed\xa0\x80", 0},
    {"BehindTheLastCodePoint", "\xf4\x90\x80\x80", 0},
    {"NoLeadByte", "\xf5\x80\x80\x80", 0},
    {"NeverAByte", "\xff", 0},
    {"CutAfterOne", "\xc3", 0},
    {"CutAfterTwo", "\xe2\x82", 0},
    {"CutAfterThree", "\xf0\x9f\x98", 0},
    {"ThirdIsNoContinuation", "\xe2\x82\x41", 0},
    {"FourthIsNoContinuation", "\xf0\x9f\x98\xc0", 0},
};

INSTANTIATE_TEST_SUITE_P(Sequences, Utf8, testing::ValuesIn(cases),
                         [](const auto &row) { return std::string{row.param.name}; });

TEST(Utf8Text, IsWholeToItsEnd)
{
    EXPECT_TRUE(is_utf8(""));
    EXPECT_TRUE(is_utf8("a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z"));
    EXPECT_FALSE(is_utf8("a\xc3\xa9\xe2\x82"));
    EXPECT_FALSE(is_utf8("a\xffz"));
}

/// Every code point, written by the rule of RFC 3629, and nothing in between.
TEST(Utf8Text, HasASequenceForEveryCodePoint)
{
    for (char32_t code = 0; code <= 0x110000; ++code) {
        std::string text;
        if (code < 0x80) {
            text = {static_cast<char>(code)};
        } else if (code < 0x800) {
            text = {static_cast<char>(0xc0 | code >> 6), static_cast<char>(0x80 | (code & 0x3f))};
        } else if (code < 0x10000) {
            text = {static_cast<char>(0xe0 | code >> 12),
                    static_cast<char>(0x80 | (code >> 6 & 0x3f)),
                    static_cast<char>(0x80 | (code & 0x3f))};
        } else {
            text = {static_cast<char>(0xf0 | code >> 18),
                    static_cast<char>(0x80 | (code >> 12 & 0x3f)),
                    static_cast<char>(0x80 | (code >> 6 & 0x3f)),
                    static_cast<char>(0x80 | (code & 0x3f))};
        }
        const bool is_character = code <= 0x10ffff && (code < 0xd800 || code > 0xdfff);
        ASSERT_EQ(utf8_length(text), is_character ? text.size() : 0) << static_cast<unsigned>(code);
    }
}

TEST(Utf8Mended, ReplacesEachByteThatBelongsToNoCharacter)
{
    EXPECT_EQ(utf8_mended(""), "");
    EXPECT_EQ(utf8_mended("a\xc3\xa9\xf0\x9f\x93\xb1"), "a\xc3\xa9\xf0\x9f\x93\xb1");
    EXPECT_EQ(utf8_mended("\xff"
                          "b\xc3"),
              "\xef\xbf\xbd"
              "b\xef\xbf\xbd");
    EXPECT_TRUE(is_utf8(utf8_mended("\xed\xa0\x80\xc0\x80")));
}

TEST(Utf8Text, ASequenceIsContinuedByBytesFrom80ToBf)
{
    for (unsigned byte = 0; byte < 0x100; ++byte) {
        EXPECT_EQ(utf8_is_continuation(static_cast<char>(byte)), byte >= 0x80 && byte <= 0xbf)
            << byte;
    }
}

} // namespace
