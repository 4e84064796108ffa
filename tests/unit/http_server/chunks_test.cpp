#include "http_server/chunks.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using std::string;

struct chunks_case {
    const char *name;
    string input;
    chunks_result result;
    string body, rest;
};
class Chunks : public testing::TestWithParam<chunks_case> {};

TEST_P(Chunks, AreTakenApartWhole)
{
    http_chunks chunks;
    std::string_view input{GetParam().input};
    string body;
    EXPECT_EQ(http_chunks_take(&chunks, &input, &body), GetParam().result);
    EXPECT_EQ(body, GetParam().body);
    EXPECT_EQ(input, GetParam().rest);
}

TEST_P(Chunks, AreTakenApartByteByByteAlike)
{
    http_chunks chunks;
    string body;
    chunks_result result = chunks_result::wants_more;
    std::size_t taken = 0;
    while (taken < GetParam().input.size() && result == chunks_result::wants_more) {
        std::string_view byte = std::string_view{GetParam().input}.substr(taken++, 1);
        result = http_chunks_take(&chunks, &byte, &body);
        EXPECT_TRUE(byte.empty());
    }
    EXPECT_EQ(result, GetParam().result);
    EXPECT_EQ(body, GetParam().body);
    EXPECT_EQ(GetParam().input.substr(taken), GetParam().rest);
}

constexpr auto wants_more = chunks_result::wants_more;
constexpr auto whole = chunks_result::whole;
constexpr auto bad = chunks_result::bad;
constexpr auto too_long = chunks_result::too_long;
const chunks_case cases[] = {
    {"One", "3\r\nabc\r\n0\r\n\r\n", whole, "abc", ""},
    {"TwoAndTheNextRequest", "1\r\na\r\n2\r\nbc\r\n0\r\n\r\nGET", whole, "abc", "GET"},
    {"None", "0\r\n\r\n", whole, "", ""},
    {"HexadecimalOfBothCases", "A\r\n0123456789\r\nb\r\n0123456789a\r\n000\r\n\r\n", whole,
     "01234567890123456789a", ""},
    {"LineEndsInside", "4\r\n\r\n\r\n\r\n0\r\n\r\n", whole, "\r\n\r\n", ""},
    {"OneTrailer", "0\r\nA: b\r\n\r\nG", whole, "", "G"},
    {"TwoTrailers", "0\r\nA: b\r\nC: d\r\n\r\n", bad, "", ": d\r\n\r\n"},
    {"TrailerOf1024", "0\r\n" + string(1024, 't') + "\r\n\r\n", whole, "", ""},
    {"TrailerOf1025", "0\r\n" + string(1025, 't') + "\r\n\r\n", bad, "", "\r\n\r\n"},
    {"Unfinished", "3\r\nab", wants_more, "ab", ""},
    {"Extension", "3;a=b\r\nabc\r\n", bad, "", "a=b\r\nabc\r\n"},
    {"SemicolonAlone", "3;\r\nabc\r\n", bad, "", "\r\nabc\r\n"},
    {"DashAlone", "-\r\n", bad, "", "\r\n"},
    {"HighBitOfADigit", "\xb3\r\nabc\r\n", bad, "", "\r\nabc\r\n"},
    {"NoSize", "\r\n", bad, "", "\n"},
    {"NoHexadecimal", "g\r\n", bad, "", "\r\n"},
    {"Negative", "-1\r\n", bad, "", "1\r\n"},
    {"HighBytes", "\xff\r\n", bad, "", "\r\n"},
    {"SeventeenDigits", "00000000000000001\r\n", bad, "", "\r\n"},
    {"LongerThanItSays", "2\r\nabc\r\n", bad, "ab", "\r\n"},
    {"LineFeedAlone", "1\na", bad, "", "a"},
    {"8192", "2000\r\n" + string(8192, 'b') + "\r\n0\r\n\r\n", whole, string(8192, 'b'), ""},
    {"8193", "2001\r\nb", too_long, "", "b"},
    {"8193InTwo", "2000\r\n" + string(8192, 'b') + "\r\n1\r\n", too_long, string(8192, 'b'), ""},
    {"TheLargestNumber", "ffffffffffffffff\r\n", too_long, "", ""},
};
INSTANTIATE_TEST_SUITE_P(Cases, Chunks, testing::ValuesIn(cases),
                         [](const auto &row) { return string{row.param.name}; });

} // namespace
