#include "tools/terminal/text.h"

#include <gtest/gtest.h>

#include "tools/terminal/columns.h"

namespace {

struct text_case {
    const char *name, *text, *terminal, *json;
};
class TerminalText : public testing::TestWithParam<text_case> {};

TEST_P(TerminalText, IsFitForATerminalAndForJson)
{
    EXPECT_EQ(velmctl_text_for_terminal(GetParam().text), GetParam().terminal);
    EXPECT_EQ(velmctl_text_for_json(GetParam().text), GetParam().json);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, TerminalText,
    testing::Values(
        text_case{"Plain", "Anna", "Anna", "Anna"}, text_case{"Empty", "", "", ""},
        text_case{"Letters", "Ünï 電話 😀", "Ünï 電話 😀", "Ünï 電話 😀"},
        text_case{"JoinedEmoji", "👨\u200d👩", "👨\u200d👩", "👨\u200d👩"},
        text_case{"Quotes", "a\"b\\c", "a\"b\\c", "a\\\"b\\\\c"},
        text_case{"Escape", "a\x1b[2Jb", "a?[2Jb", "a\\u001b[2Jb"},
        text_case{"Newline", "a\nb\r", "a?b?", "a\\u000ab\\u000d"},
        text_case{"Delete", "a\x7f", "a?", "a\\u007f"},
        text_case{"FirstOfTheUpperControls", "\u0080", "?", "\\u0080"},
        text_case{"LastOfTheUpperControls", "\u009f", "?", "\\u009f"},
        text_case{"BehindTheUpperControls", "\u00a0", "\u00a0", "\u00a0"},
        text_case{"DirectionOverride", "\u202egnp.exe", "?gnp.exe", "\\u202egnp.exe"},
        text_case{"DirectionIsolate", "\u2066x\u2069", "?x?", "\\u2066x\\u2069"},
        text_case{"DirectionMarks", "\u200e\u200f\u061c", "???", "\\u200e\\u200f\\u061c"},
        text_case{"LineSeparators", "\u2028\u2029", "??", "\\u2028\\u2029"},
        text_case{"TagBeyondSixteenBits", "\U000e0041", "?", "\\udb40\\udc41"},
        text_case{"NoUtf8", "a\xff\xc3(b", "a\ufffd\ufffd(b", "a\ufffd\ufffd(b"},
        text_case{"Surrogate", "\xed\xa0\x80", "\ufffd\ufffd\ufffd", "\ufffd\ufffd\ufffd"}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST(TerminalText, ADocumentKeepsItsQuotesAndEscapes)
{
    EXPECT_EQ(velmctl_document_for_output("{\"a\":\"\\u001b\u009b\"}"),
              "{\"a\":\"\\u001b\\u009b\"}");
}

TEST(TerminalText, LinesKeepTheirEnds)
{
    EXPECT_EQ(velmctl_lines_for_terminal("a\nb\rc\n"), "a\nb?c\n");
}

TEST(TerminalColumns, AreAsWideAsTheWidestText)
{
    const std::vector<std::vector<std::string>> rows{
        {"a", "bb", "c"}, {"電話", "b", "c"}, {"\033[31mred\033[0m", "b"}, {}};
    EXPECT_EQ(velmctl_columns(rows, 1), " a     bb  c\n 電話  b   c\n \033[31mred\033[0m   b\n \n");
}

TEST(TerminalColumns, OfNoRowsAreNothing)
{
    EXPECT_EQ(velmctl_columns({}), "");
}

TEST(TerminalColumns, AMarkOverALetterNeedsNone)
{
    EXPECT_EQ(velmctl_columns_of("e\u0301"), 1U);
    EXPECT_EQ(velmctl_columns_of("\033"), 0U);
}

} // namespace
