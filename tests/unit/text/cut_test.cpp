#include "text/cut.h"

#include <gtest/gtest.h>

namespace {

struct cut_case {
    const char *name, *text, *kept;
};
class CutText : public testing::TestWithParam<cut_case> {};

TEST_P(CutText, KeepsWholeCharactersThatFit)
{
    char field[5];
    text_cut(field, GetParam().text);
    EXPECT_STREQ(field, GetParam().kept);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, CutText,
    testing::Values(cut_case{"None", nullptr, ""}, cut_case{"Empty", "", ""},
                    cut_case{"Fits", "abcd", "abcd"}, cut_case{"TooLong", "abcde", "abcd"},
                    cut_case{"EndsWithACharacterOfTwoBytes", "ab\xc3\xa9", "ab\xc3\xa9"},
                    cut_case{"WouldCutACharacterOfTwoBytes", "abc\xc3\xa9", "abc"},
                    cut_case{"WouldCutACharacterOfFourBytes", "a\xf0\x9f\x93\xb1", "a"},
                    cut_case{"OneCharacterThatFits", "\xf0\x9f\x93\xb1", "\xf0\x9f\x93\xb1"},
                    cut_case{"NoCharacterAtAll", "\x80\x80\x80\x80\x80", ""}),
    [](const auto &row) { return std::string{row.param.name}; });

} // namespace
