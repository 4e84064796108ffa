#include "logger/line_buffer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr std::size_t longest = 7999; // of 8000 bytes one is the zero

std::string text_of(const line_buffer &line)
{
    EXPECT_EQ(line.text()[line.length()], '\0');
    return {line.text(), line.length()};
}

TEST(LineBuffer, GrowsByWhatIsAppended)
{
    line_buffer line;
    line.append("%s ", "a");
    line.append("%d", 7);
    line.end_line();
    EXPECT_EQ(text_of(line), "a 7\n");
    EXPECT_STREQ(line.text(2), "7\n");
}

TEST(LineBuffer, HasTheTimeAsPeopleWriteIt)
{
    std::tm time{};
    time.tm_year = 126;
    time.tm_mon = 10;
    time.tm_mday = 23;
    time.tm_hour = 1;
    time.tm_min = 59;
    time.tm_sec = 7;
    line_buffer line;
    line.append_time(time);
    EXPECT_EQ(text_of(line), "2026-11-23 01:59:07");
}

TEST(LineBuffer, OneByteTooManyIsCut)
{
    line_buffer line;
    line.append("%s", std::string(longest + 1, 'x').c_str());
    EXPECT_EQ(text_of(line), std::string(longest, 'x'));
    line.append("%s", "more");
    EXPECT_EQ(line.length(), longest);
}

TEST(LineBuffer, ThatIsFullEndsWithItsNewlineInPlaceOfItsLastCharacter)
{
    line_buffer line;
    line.append("%s", std::string(longest, 'x').c_str());
    line.end_line();
    EXPECT_EQ(text_of(line), std::string(longest - 1, 'x') + '\n');
}

struct control_case {
    const char *name;
    const char *from;
    const char *shown;
};

class LineBufferShows : public testing::TestWithParam<control_case> {};

TEST_P(LineBufferShows, NothingThatEndsALineOrSteersATerminal)
{
    line_buffer line;
    line.append("%s", GetParam().from);
    line.replace_control_characters(0);
    EXPECT_EQ(text_of(line), GetParam().shown);
}

INSTANTIATE_TEST_SUITE_P(Texts, LineBufferShows,
                         testing::Values(control_case{"Nothing", "", ""},
                                         control_case{"LineEnds", "a\r\nb\tc", "a  b c"},
                                         control_case{"Escape", "\x1b[2J\x7f", "?[2J?"},
                                         control_case{"ControlOfTwoBytes",
                                                      "\xc2\x9b"
                                                      "2J",
                                                      "??2J"},
                                         control_case{"LettersOfTwoBytes", "\xc3\xa4\xc2\xa0",
                                                      "\xc3\xa4\xc2\xa0"},
                                         control_case{"HalfALetter", "a\xc2", "a\xc2"}),
                         [](const auto &row) { return std::string{row.param.name}; });

TEST(LineBuffer, WhatStandsBeforeIsLeftAsItIs)
{
    line_buffer line;
    line.append("%s", "\ta\tb");
    line.replace_control_characters(2);
    EXPECT_EQ(text_of(line), "\ta b");
}

} // namespace
