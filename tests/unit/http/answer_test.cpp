#include "http/answer.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using state = http_client_answer_state;

constexpr std::size_t limit = 100;
const std::string ok_head = "HTTP/1.1 200 OK\r\n";
const std::string counted = ok_head + "Content-Length: 5\r\n\r\n";
const std::string chunked = ok_head + "Transfer-Encoding: chunked\r\n\r\n";

state read_in_pieces(http_client_answer *answer, std::string_view text, std::size_t piece)
{
    state result = state::incomplete;
    for (; !text.empty(); text.remove_prefix(std::min(piece, text.size()))) {
        result = answer->read(text.substr(0, piece));
    }
    return result;
}

struct answer_case {
    std::string name, text;
    state result;
    std::string body = "";
};
class HttpClientAnswer : public testing::TestWithParam<answer_case> {};

TEST_P(HttpClientAnswer, IsTheSameInWhateverPiecesItComes)
{
    for (const std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{7}, limit * 1000}) {
        http_client_answer answer{limit};
        EXPECT_EQ(read_in_pieces(&answer, GetParam().text, piece), GetParam().result) << piece;
        if (GetParam().result == state::whole) {
            EXPECT_EQ(answer.body(), GetParam().body) << piece;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, HttpClientAnswer,
    testing::Values(
        answer_case{"Counted", counted + "12345", state::whole, "12345"},
        answer_case{"CountedShort", counted + "1234", state::incomplete},
        answer_case{"CountedAndMore", counted + "12345HTTP/1.1", state::whole, "12345"},
        answer_case{"Empty", ok_head + "Content-Length: 0\r\n\r\n", state::whole},
        answer_case{"Chunked", chunked + "3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n", state::whole, "abcde"},
        answer_case{"ChunkedWithoutItsLastLine", chunked + "3\r\nabc\r\n0\r\n", state::whole,
                    "abc"},
        answer_case{"ChunkedWithATrailer", chunked + "1\r\na\r\n0\r\nX: y\r\n\r\n", state::whole,
                    "a"},
        answer_case{"ChunkedWithoutItsLastChunk", chunked + "3\r\nabc\r\n", state::incomplete},
        answer_case{"ChunkWithAnExtension", chunked + "3;a=b\r\nabc\r\n0 ;c\r\n", state::whole,
                    "abc"},
        answer_case{"PlainLineEnds", "HTTP/1.0 200\nContent-Length: 1\n\na", state::whole, "a"},
        answer_case{"InterimFirst",
                    "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early\r\nA: b\r\n\r\n" + counted +
                        "12345",
                    state::whole, "12345"},
        answer_case{"NoContent", "HTTP/1.1 204 No\r\nContent-Length: 7\r\n\r\n", state::whole},
        answer_case{"NotModified", "HTTP/1.1 304\r\n\r\n", state::whole},
        answer_case{"FoldedHeader", ok_head + "X: a\r\n\tb\r\nContent-Length: 1\r\n\r\nz",
                    state::whole, "z"},
        answer_case{"AsLongAsAllowed",
                    ok_head + "Content-Length: 100\r\n\r\n" + std::string(100, 'x'), state::whole,
                    std::string(100, 'x')},
        answer_case{"AByteLonger", ok_head + "Content-Length: 101\r\n\r\n", state::broken_body},
        answer_case{"ChunksTooLong", chunked + "64\r\n" + std::string(100, 'x') + "\r\n1\r\n",
                    state::broken_body},
        answer_case{"WithoutALengthTooLong", ok_head + "\r\n" + std::string(101, 'x'),
                    state::broken_body},
        answer_case{"WithoutALength", ok_head + "\r\n" + std::string(100, 'x'), state::incomplete},
        answer_case{"LongestNumber", ok_head + "Content-Length: 18446744073709551615\r\n\r\n",
                    state::broken_body},
        answer_case{"TooLongANumber", ok_head + "Content-Length: 18446744073709551616\r\n\r\n",
                    state::not_http},
        answer_case{"LengthWithASign", ok_head + "Content-Length: +5\r\n\r\n", state::not_http},
        answer_case{"TwoLengths", ok_head + "Content-Length: 5\r\nContent-Length: 5\r\n\r\n",
                    state::not_http},
        answer_case{"LengthAndChunks",
                    ok_head + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n",
                    state::not_http},
        answer_case{"OtherCoding", ok_head + "Transfer-Encoding: gzip, chunked\r\n\r\n",
                    state::not_http},
        answer_case{"OtherProtocol", "HTTP/2.0 200 OK\r\n\r\n", state::not_http},
        answer_case{"FourDigits", "HTTP/1.1 2000 OK\r\n\r\n", state::not_http},
        answer_case{"CodeZero", "HTTP/1.1 000 OK\r\n\r\n", state::not_http},
        answer_case{"NoCode", "HTTP/1.1\r\n\r\n", state::not_http},
        answer_case{"NulInAHeader", ok_head + std::string{"X: a\0b\r\n\r\n", 10}, state::not_http},
        answer_case{"LoneCarriageReturn", ok_head + "X: a\rY: b\r\n\r\n", state::not_http},
        answer_case{"BlankInAName", ok_head + "Content-Length : 5\r\n\r\n", state::not_http},
        answer_case{"NoName", ok_head + ": 5\r\n\r\n", state::not_http},
        answer_case{"ChunkSizeWithASign", chunked + "-1\r\n", state::broken_body},
        answer_case{"ChunkSizeOfNothing", chunked + "\r\n", state::broken_body},
        answer_case{"ChunkSizeTooLong", chunked + std::string(1025, '0'), state::broken_body},
        answer_case{"ChunkOverflow", chunked + "fffffffffffffffff\r\n", state::broken_body},
        answer_case{"ChunkLongerThanItsSize", chunked + "1\r\nab\r\n", state::broken_body}),
    [](const auto &row) { return row.param.name; });

TEST(HttpClientAnswerEnd, IsTheEndOfABodyWithoutALength)
{
    http_client_answer answer{limit};
    answer.read(ok_head + "\r\nto the end");
    EXPECT_EQ(answer.end(), state::whole);
    EXPECT_EQ(answer.body(), "to the end");
}

TEST(HttpClientAnswerEnd, CutsEveryOtherAnswerShort)
{
    for (const std::string &text :
         {std::string{}, ok_head, counted, counted + "1234", chunked, chunked + "5\r\nab"}) {
        http_client_answer answer{limit};
        answer.read(text);
        EXPECT_EQ(answer.end(), state::incomplete) << text;
    }
}

TEST(HttpClientAnswerHead, HoldsAtMost128Headers)
{
    for (const int count : {127, 128}) {
        std::string text = ok_head;
        for (int i = 0; i < count; ++i) {
            text += "a:b\r\n";
        }
        http_client_answer answer{limit};
        EXPECT_EQ(answer.read(text + "Content-Length: 0\r\n\r\n"),
                  count == 127 ? state::whole : state::not_http);
    }
}

TEST(HttpClientAnswerHead, HoldsAtMost16KibibytesWithTheInterimOnes)
{
    const std::string interim = "HTTP/1.1 100 Continue\r\n\r\n";
    std::string text;
    while (text.size() + interim.size() <= http_client_head_size_max) {
        text += interim;
    }
    http_client_answer answer{limit};
    EXPECT_EQ(answer.read(text), state::incomplete);
    EXPECT_EQ(answer.read(interim), state::not_http);
}

TEST(HttpClientAnswerHead, IsKnownToTheCaller)
{
    http_client_answer answer{limit};
    answer.read("HTTP/1.1 404 Gone\r\nX:  a\r\n  b\r\nRetry-After: 7\r\n\r\n");
    EXPECT_EQ(answer.code(), 404);
    EXPECT_STREQ(evhttp_find_header(answer.headers(), "x"), "a b");
    EXPECT_STREQ(evhttp_find_header(answer.headers(), "retry-after"), "7");
}

TEST(HttpClientAnswerBody, IsHeldInAboutItsLength)
{
    constexpr std::size_t large = std::size_t{64} * 1024;
    http_client_answer answer{large};
    answer.read(ok_head + "\r\n");
    for (std::size_t i = 0; i < large; ++i) {
        answer.read("x");
    }
    EXPECT_EQ(answer.body().size(), large);
    EXPECT_LE(answer.body().capacity(), 2 * large);
}

struct open_case {
    std::string text;
    bool open;
};

TEST(HttpClientAnswerConnection, ServesTheNextOnlyWhenTheAnswerEndsInOrder)
{
    const std::vector<open_case> cases{
        {counted + "12345", true},
        {counted + "12345x", false},
        {ok_head + "Connection: close\r\nContent-Length: 0\r\n\r\n", false},
        {"HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n", false},
        {"HTTP/1.0 200 OK\r\nConnection: keep-alive\r\nContent-Length: 0\r\n\r\n", true},
        {chunked + "0\r\n\r\n", true},
        {chunked + "0\r\n", false},
        {chunked + "0\r\nX: y\r\n\r\n", false},
    };
    for (const open_case &row : cases) {
        http_client_answer answer{limit};
        EXPECT_EQ(answer.read(row.text), state::whole);
        EXPECT_EQ(answer.leaves_open(), row.open) << row.text;
    }
    http_client_answer until_end{limit};
    until_end.read(ok_head + "\r\nx");
    until_end.end();
    EXPECT_FALSE(until_end.leaves_open());
}

} // namespace
