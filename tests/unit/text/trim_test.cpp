#include "text/trim.h"

#include <gtest/gtest.h>

#include <cctype>

namespace {

TEST(Trim, TakesBlanksOffBothEndsAndLeavesThoseInside)
{
    EXPECT_EQ(trim(" \ta b\t ", " \t"), "a b");
    EXPECT_EQ(trim("a", " \t"), "a");
    EXPECT_EQ(trim(" a", " \t"), "a");
    EXPECT_EQ(trim("a ", " \t"), "a");
}

TEST(Trim, LeavesNothingOfBlanksAlone)
{
    EXPECT_EQ(trim("", " \t"), "");
    EXPECT_EQ(trim(" \t ", " \t"), "");
}

TEST(Trim, LeavesWhatIsNoBlankOfThese)
{
    EXPECT_EQ(trim("\r\na\r\n", " \t"), "\r\na\r\n");
    EXPECT_EQ(trim("\r\na\r\n", white_space), "a");
}

TEST(Trim, WhiteSpaceIsWhatIsspaceTakesForIt)
{
    for (int c = 0; c < 256; ++c) {
        EXPECT_EQ(white_space.find(static_cast<char>(c)) != std::string_view::npos,
                  std::isspace(c) != 0)
            << c;
    }
}

} // namespace
