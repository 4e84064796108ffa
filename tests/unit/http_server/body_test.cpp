#include "http_server/body.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

http_body announced(std::size_t size)
{
    http_body body;
    body.announced = size;
    return body;
}

http_body chunked()
{
    http_body body;
    body.chunked = true;
    return body;
}

void expect_whole(http_body body, std::string held, std::string_view text, std::string_view rest)
{
    EXPECT_EQ(http_body_take(&body, &held), chunks_result::whole);
    EXPECT_EQ(body.text, text);
    EXPECT_EQ(held, rest);
}

TEST(HttpBody, OfNoBytesIsWholeAtOnceAndTakesNothing)
{
    expect_whole(announced(0), "GET /", "", "GET /");
}

TEST(HttpBody, ThatHasHalfComeWantsMore)
{
    http_body body = announced(4);
    std::string held = "ab";
    EXPECT_EQ(http_body_take(&body, &held), chunks_result::wants_more);
    EXPECT_EQ(held, "");
    held = "cd";
    EXPECT_EQ(http_body_take(&body, &held), chunks_result::whole);
    EXPECT_EQ(body.text, "abcd");
}

TEST(HttpBody, LeavesWhatIsBehindItToTheNextRequest)
{
    expect_whole(announced(3), "abcG", "abc", "G");
}

TEST(HttpBody, InChunksIsWhatIsInThem)
{
    http_body body = chunked();
    std::string held;
    for (const char byte : std::string{"3\r\nabc\r\n1\r\nd\r\n0\r\n\r"}) {
        held += byte;
        ASSERT_EQ(http_body_take(&body, &held), chunks_result::wants_more);
    }
    held += "\nGET /";
    EXPECT_EQ(http_body_take(&body, &held), chunks_result::whole);
    EXPECT_EQ(body.text, "abcd");
    EXPECT_EQ(held, "GET /");
}

TEST(HttpBody, InChunksMayHaveTheLongestLengthAndNoByteMore)
{
    const std::string longest(http_chunks_max_body, 'x');
    http_body body = chunked();
    std::string held = "2000\r\n" + longest + "\r\n0\r\n\r\n";
    EXPECT_EQ(http_body_take(&body, &held), chunks_result::whole);
    EXPECT_EQ(body.text, longest);
    body = chunked();
    held = "2001\r\n";
    EXPECT_EQ(http_body_take(&body, &held), chunks_result::too_long);
}

TEST(HttpBody, InChunksThatAreNoneIsBad)
{
    http_body body = chunked();
    std::string held = "g\r\n";
    EXPECT_EQ(http_body_take(&body, &held), chunks_result::bad);
}

TEST(HttpBodyJoin, PutsTheBodyBehindItsHeadAndLeavesNoCopy)
{
    http_body body = announced(2);
    body.text = "ab";
    EXPECT_EQ(http_body_join("POST / HTTP/1.1\r\nContent-Length: 2\r\n\r\n", &body),
              "POST / HTTP/1.1\r\nContent-Length: 2\r\n\r\nab");
    EXPECT_EQ(body.text, "");
}

TEST(HttpBodyJoin, GivesABodyInChunksItsLength)
{
    http_body body = chunked();
    body.text = "abc";
    EXPECT_EQ(http_body_join("POST / HTTP/1.1\r\n\r\n", &body),
              "POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc");
    body = chunked();
    EXPECT_EQ(http_body_join("POST / HTTP/1.1\r\n\r\n", &body),
              "POST / HTTP/1.1\r\nContent-Length: 0\r\n\r\n");
}

} // namespace
