#include "http_server/head_filter.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using std::string;

std::size_t length_of(const string &bytes)
{
    std::size_t scanned = 0;
    return http_head_length(bytes, &scanned);
}

string head_with(const string &lines)
{
    return "POST /pair HTTP/1.1\r\n" + lines + "\r\n";
}

TEST(HeadLength, ReachesToTheEndOfTheBlankLine)
{
    EXPECT_EQ(length_of("GET / HTTP/1.1\r\nHost: a\r\n\r\nbody"), 27U);
}

TEST(HeadLength, IsNothingBeforeTheBlankLineIsThere)
{
    EXPECT_EQ(length_of(""), 0U);
    EXPECT_EQ(length_of("GET / HTTP/1.1\r\nHost: a\r\n\r"), 0U);
}

TEST(HeadLength, IsFoundWhereverTheBytesAreSplit)
{
    const string head = head_with("Host: a\r\n");
    for (std::size_t split = 0; split <= head.size(); ++split) {
        std::size_t scanned = 0;
        const std::size_t early = http_head_length(head.substr(0, split), &scanned);
        ASSERT_EQ(early, split == head.size() ? head.size() : 0) << split;
        ASSERT_EQ(http_head_length(head, &scanned), split == head.size() ? 0 : head.size())
            << split;
    }
}

TEST(HeadLength, EndsAtALineFeedWithoutCarriageReturnSoThatTheHeadIsRefused)
{
    const string head = "GET / HTTP/1.1\nHost: a\n\n";
    EXPECT_EQ(length_of(head), 15U);
    EXPECT_STREQ(http_head_filter(head.substr(0, 15)).refusal, "line feed without carriage return");
}

TEST(HeadFilter, LeavesAHeadOfHeadersThatAreReadAsItIs)
{
    const string head = head_with("User-Agent: a\r\nuser-agent:  b \r\n folded\r\n"
                                  "Proxy-Connection:\r\nContent-Length: 3\r\n");
    const http_head result = http_head_filter(head);
    EXPECT_EQ(result.refusal, nullptr);
    EXPECT_EQ(result.text, head);
    EXPECT_TRUE(result.lifted.empty());
}

TEST(HeadFilter, LeavesAHeadWithoutAnyHeaderAsItIs)
{
    EXPECT_EQ(http_head_filter(head_with("")).text, head_with(""));
}

struct lift_case {
    const char *name, *lines, *header, *value;
};
class Lifts : public testing::TestWithParam<lift_case> {};
TEST_P(Lifts, TheValueOutOfTheHead)
{
    const http_head result = http_head_filter(
        head_with(string{"User-Agent: a\r\n"} + GetParam().lines + "User-Agent: c\r\n"));
    ASSERT_EQ(result.refusal, nullptr);
    EXPECT_EQ(result.text, head_with("User-Agent: a\r\nUser-Agent: c\r\n"));
    ASSERT_EQ(result.lifted.size(), 1U);
    EXPECT_STREQ(result.lifted[0].name, GetParam().header);
    EXPECT_EQ(result.lifted[0].value, GetParam().value);
}
INSTANTIATE_TEST_SUITE_P(
    Lines, Lifts,
    testing::Values(
        lift_case{"Assertion", "X-Assertion: abc\r\n", "X-Assertion", "abc"},
        lift_case{"Attestation", "X-Attestation: abc\r\n", "X-Attestation", "abc"},
        lift_case{"LowerCase", "x-assertion: abc\r\n", "X-Assertion", "abc"},
        lift_case{"UpperCase", "X-ATTESTATION: abc\r\n", "X-Attestation", "abc"},
        lift_case{"NoBlank", "X-Assertion:abc\r\n", "X-Assertion", "abc"},
        lift_case{"WhiteSpaceAround", "X-Assertion: \t abc\t \r\n", "X-Assertion", "abc"},
        lift_case{"ColonInside", "X-Assertion: a:b\r\n", "X-Assertion", "a:b"},
        lift_case{"Empty", "X-Assertion:\r\n", "X-Assertion", ""},
        lift_case{"OnlyBlanks", "X-Assertion:   \r\n", "X-Assertion", ""},
        lift_case{"FoldedByBlank", "X-Assertion: ab\r\n  cd \r\n", "X-Assertion", "ab cd"},
        lift_case{"FoldedByTab", "X-Assertion: ab\r\n\tcd\r\n\tef\r\n", "X-Assertion", "ab cd ef"},
        lift_case{"FoldedFromTheStart", "X-Assertion:\r\n abc\r\n", "X-Assertion", "abc"}),
    [](const auto &row) { return string{row.param.name}; });

TEST(HeadFilter, LiftsNoHeaderWhoseNameOnlyResembles)
{
    const string head = head_with("X-Assertions: a\r\nX-Assertio: b\r\nX-Assertion-: c\r\n");
    const http_head result = http_head_filter(head);
    EXPECT_TRUE(result.lifted.empty());
    EXPECT_EQ(result.text, head_with(""));
}

TEST(HeadFilter, KeepsTheFirstOfHeadersThatAreDoubled)
{
    string lines = "X-Assertion: 1\r\nx-assertion: 3\r\nX-Attestation: 2\r\n";
    for (int i = 0; i < 20; ++i) {
        lines += "X-Assertion: 4\r\n folded\r\nX-Attestation: 5\r\n";
    }
    const http_head result = http_head_filter(head_with(lines));
    EXPECT_EQ(result.refusal, nullptr);
    ASSERT_EQ(result.lifted.size(), 2U);
    EXPECT_EQ(result.lifted[0].value + result.lifted[1].value, "12");
}

TEST(HeadFilter, KeepsALiftedValueOf16384CharactersWhole)
{
    const string value(16384, 'a');
    EXPECT_EQ(http_head_filter(head_with("X-Assertion: " + value + "\r\n")).lifted.at(0).value,
              value);
}

TEST(HeadFilter, RefusesALiftedValueOf16385CharactersAsABadRequestAndKeepsNothingOfIt)
{
    for (const string &lines : {"X-Assertion: " + string(16385, 'a') + "\r\n",
                                "X-Attestation: " + string(40000, 'a') + "\r\n",
                                "X-Assertion: " + string(16384, 'a') + "\r\n b\r\n"}) {
        const http_head result = http_head_filter(head_with(lines));
        EXPECT_STREQ(result.refusal, "attestation or assertion too long");
        EXPECT_EQ(result.refusal_status, 400);
        EXPECT_LE(result.lifted.at(0).value.size(), 16385U);
    }
}

TEST(HeadFilter, ALineThatIsLongerThanAnyThatMayPassIsKnownBeforeItEnds)
{
    const string start = "GET / HTTP/1.1\r\nHost: a\r\n";
    EXPECT_EQ(http_head_line_refusal(start + string(16448, 'a')), 0);
    EXPECT_EQ(http_head_line_refusal(start + string(16449, 'a')), 431);
    EXPECT_EQ(http_head_line_refusal(start + "X-ASSERTION:" + string(16449, 'a')), 400);
    EXPECT_EQ(http_head_line_refusal(start + string(16449, 'a') + "\r\n"), 0);
    EXPECT_EQ(http_head_line_refusal(""), 0);
}

TEST(HeadFilter, TellsTheStatusOfARefusal)
{
    EXPECT_EQ(http_head_filter(head_with(string(70000, 'a'))).refusal_status, 431);
    EXPECT_EQ(http_head_filter(head_with("A: " + string(8193, 'a') + "\r\n")).refusal_status, 431);
    EXPECT_EQ(http_head_filter("GET /" + string(8191, 'a') + " HTTP/1.1\r\n\r\n").refusal_status,
              414);
    EXPECT_EQ(http_head_filter(head_with("Transfer-Encoding: gzip\r\n")).refusal_status, 501);
    EXPECT_EQ(http_head_filter(head_with("foo\r\n")).refusal_status, 400);
}

struct limit_case {
    const char *name;
    string head;
    const char *refusal;
};
string headers(std::size_t count)
{
    string lines;
    for (std::size_t i = 0; i < count; ++i) {
        lines += "A: b\r\n";
    }
    return lines;
}
string head_of_size(std::size_t size)
{
    string lines;
    const string line = "A: " + string(8000, 'a') + "\r\n";
    while (head_with(lines + line).size() + 10 < size) {
        lines += line;
    }
    const string rest = "B: \r\n";
    lines += "B: " + string(size - head_with(lines + rest).size(), 'b') + "\r\n";
    return head_with(lines);
}
string head_of_uri(std::size_t size)
{
    return "GET " + string(size, '/') + " HTTP/1.1\r\n\r\n";
}
class HeadLimit : public testing::TestWithParam<limit_case> {};
TEST_P(HeadLimit, HoldsOnBothSides)
{
    EXPECT_STREQ(http_head_filter(GetParam().head).refusal, GetParam().refusal);
}
INSTANTIATE_TEST_SUITE_P(
    Limits, HeadLimit,
    testing::Values(
        limit_case{"Headers100", head_with(headers(100)), nullptr},
        limit_case{"Headers101", head_with(headers(101)), "too many headers"},
        limit_case{"LiftedHeadersCount", head_with(headers(100) + "X-Assertion: a\r\n"),
                   "too many headers"},
        limit_case{"FoldedLinesCount", head_with(headers(100) + " a\r\n"), "too many headers"},
        limit_case{"Value8192", head_with("A: " + string(8192, 'a') + "\r\n"), nullptr},
        limit_case{"Value8193", head_with("A: " + string(8193, 'a') + "\r\n"), "header too long"},
        limit_case{"FoldedValue8192",
                   head_with("A: " + string(8000, 'a') + "\r\n\t" + string(192, 'a') + "\r\n"),
                   nullptr},
        limit_case{"FoldedValue8193",
                   head_with("A: " + string(8000, 'a') + "\r\n\t" + string(193, 'a') + "\r\n"),
                   "header too long"},
        limit_case{"Name8192", head_with(string(8192, 'a') + ": a\r\n"), nullptr},
        limit_case{"Name8193", head_with(string(8193, 'a') + ": a\r\n"), "header too long"},
        limit_case{"Length8192", head_with("Content-Length: " + string(8192, '0') + "\r\n"),
                   "header too long"},
        limit_case{"FoldedEncoding8192",
                   head_with("Transfer-Encoding: chunked\r\n " + string(8185, 'a') + "\r\n"),
                   "header too long"},
        limit_case{"Uri8191", head_of_uri(8191), nullptr},
        limit_case{"Uri8192", head_of_uri(8192), "uri too long"},
        limit_case{"Head65536", head_of_size(65536), nullptr},
        limit_case{"Head65537", head_of_size(65537), "head too long"},
        limit_case{"ZeroByte", string("GET /info\0x HTTP/1.1\r\n\r\n", 24),
                   "zero byte in the head"}),
    [](const auto &row) { return string{row.param.name}; });

TEST(HeadFilter, LeavesOutAHeaderThatTheParserCannotTake)
{
    const string longest(8191, 'a');
    const string name = "User-Agent: ";
    for (const string &header : {name + longest + "a\r\n", longest + "a: b\r\n",
                                 name + longest + "\r\n a\r\n", name + longest + "a\r\n  \r\n"}) {
        EXPECT_EQ(
            http_head_filter(head_with("User-Agent: c\r\n" + header + "User-Agent: e\r\n")).text,
            head_with("User-Agent: c\r\nUser-Agent: e\r\n"));
    }
    const string kept = head_with(name + longest + "\r\n");
    EXPECT_EQ(http_head_filter(kept).text, kept);
}

TEST(HeadFilter, TellsThatTheBodyComesInChunks)
{
    EXPECT_TRUE(http_head_filter(head_with("transfer-encoding: chunked\r\n")).chunked);
    EXPECT_TRUE(http_head_filter(head_with("Transfer-Encoding:\t CHUNKED \r\n \r\n")).chunked);
    EXPECT_FALSE(http_head_filter(head_with("Content-Length: 3\r\n")).chunked);
}

struct connection_case {
    const char *name, *lines;
    bool wants_close, wants_keep_alive;
};
class Connection : public testing::TestWithParam<connection_case> {};
TEST_P(Connection, IsUnderstoodBesideTheText)
{
    const http_head head = http_head_filter(head_with(GetParam().lines));
    ASSERT_EQ(head.refusal, nullptr);
    EXPECT_EQ(head.wants_close, GetParam().wants_close);
    EXPECT_EQ(head.wants_keep_alive, GetParam().wants_keep_alive);
    EXPECT_EQ(head.text, head_with(""));
}
INSTANTIATE_TEST_SUITE_P(
    Heads, Connection,
    testing::Values(connection_case{"None", "", false, false},
                    connection_case{"Close", "Connection: close\r\n", true, false},
                    connection_case{"KeepAlive", "Connection: keep-alive\r\n", false, true},
                    connection_case{"AnyCase", "CONNECTION:Keep-Alive \r\nconnection: CLOSE\r\n",
                                    true, true},
                    connection_case{"Another", "Connection: keep-alivf\r\n", false, false},
                    connection_case{"AList", "Connection: close, te\r\n", false, false},
                    connection_case{"Empty", "Connection:\r\n", false, false},
                    connection_case{"Folded", "Connection: close\r\n\tkeep-alive\r\n", true, false},
                    connection_case{"OfAnotherName", "Connectio: close\r\nConnectioN-: close\r\n",
                                    false, false}),
    [](const auto &row) { return string{row.param.name}; });

/// The parser compares the values of these headers as 32-bit words at odd addresses.
class ComparedInWords : public testing::TestWithParam<const char *> {};
TEST_P(ComparedInWords, ReachesTheParserInNoForm)
{
    const string name = GetParam();
    for (const char *const value : {"chunked", "keep-alive", "Keep-Alive", "close", "multipart"}) {
        const string line = name + ": " + value;
        for (const string &lines :
             {line + "\r\n", line + " \r\n", line + "\r\n\tmore\r\n", line + "\rmore\r\n",
              name + ":\r\n\t" + value + "\r\n", name + ":" + value + "\r\r\n"}) {
            const http_head head = http_head_filter(head_with(lines));
            EXPECT_TRUE(head.refusal != nullptr || head.text == head_with("")) << head.text;
        }
    }
}
INSTANTIATE_TEST_SUITE_P(Names, ComparedInWords,
                         testing::Values("Connection", "CONNECTION", "Transfer-Encoding",
                                         "transfer-encoding", "Content-Type", "content-TYPE"));

struct doubtful_case {
    const char *name, *lines, *refusal;
};
class Doubtful : public testing::TestWithParam<doubtful_case> {};
TEST_P(Doubtful, IsRefusedOrNot)
{
    EXPECT_STREQ(http_head_filter(head_with(GetParam().lines)).refusal, GetParam().refusal);
}
constexpr char two_lengths[] = "more than one length of the body";
INSTANTIATE_TEST_SUITE_P(
    Heads, Doubtful,
    testing::Values(
        doubtful_case{"NoColon", "Host: a\r\nfoo\r\n", "no header"},
        doubtful_case{"NoName", ": a\r\n", "no header"},
        doubtful_case{"BlankInAName", "A b: c\r\n", "no header"},
        doubtful_case{"BlankBehindAName", "X-Assertion : c\r\n", "no header"},
        doubtful_case{"TabBehindAName", "Content-Length\t: 3\r\n", "no header"},
        doubtful_case{"FoldedFirstLine", " Host: a\r\n", "no header"},
        doubtful_case{"OneLength", "Content-Length: 3\r\n", nullptr},
        doubtful_case{"TwoLengths", "Content-Length: 3\r\ncontent-length: 3\r\n", two_lengths},
        doubtful_case{"LengthAndChunks", "Content-Length: 3\r\nTransfer-Encoding: chunked\r\n",
                      two_lengths},
        doubtful_case{"ChunksAndLength", "Transfer-Encoding: chunked\r\nContent-Length: 3\r\n",
                      two_lengths},
        doubtful_case{"ChunksTwice", "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n",
                      two_lengths},
        doubtful_case{"OtherEncoding", "Transfer-Encoding: gzip, chunked\r\n",
                      "unknown transfer encoding"},
        doubtful_case{"FoldedEncoding", "Transfer-Encoding: chunked\r\n\tgzip\r\n",
                      "unknown transfer encoding"},
        doubtful_case{"EncodingWithACarriageReturn", "Transfer-Encoding: chunked\r\r\n",
                      "carriage return in a header"},
        doubtful_case{"ConnectionWithACarriageReturn", "Connection: keep-alive\ra\r\n",
                      "carriage return in a header"},
        doubtful_case{"TypeWithACarriageReturn", "Content-Type: multipart\ra\r\n",
                      "carriage return in a header"},
        doubtful_case{"NoEncoding", "Transfer-Encoding:\r\n", "unknown transfer encoding"}),
    [](const auto &row) { return string{row.param.name}; });

TEST(RequestLine, LosesItsQueryAndKeepsItsPath)
{
    const auto line = [](const std::string &sent) {
        const std::string text = http_head_filter(sent + "\r\n\r\n").text;
        return text.substr(0, text.find("\r\n"));
    };
    EXPECT_EQ(line("GET /info?a=b&c HTTP/1.1"), "GET /info HTTP/1.1");
    EXPECT_EQ(line("GET /info?" + std::string(8000, '&') + " HTTP/1.1"), "GET /info HTTP/1.1");
    EXPECT_EQ(line("GET /a?b?c HTTP/1.0"), "GET /a HTTP/1.0");
    EXPECT_EQ(line("GET /info HTTP/1.1"), "GET /info HTTP/1.1");
    EXPECT_EQ(line("GET /info?x"), "GET /info");
    EXPECT_EQ(line("GET"), "GET");
    EXPECT_EQ(line(""), "");
    EXPECT_EQ(line("OPTIONS * HTTP/1.1"), "OPTIONS /* HTTP/1.1");
}

TEST(HeadersForNobody, AreLeftOutWithTheirFoldedLines)
{
    const http_head head = http_head_filter("GET / HTTP/1.1\r\ncontent-type: a\r\n b\r\n"
                                            "Expect: 100-Continue\r\nHost: c\r\n"
                                            "USER-AGENT: d\r\n e\r\nAccept: *\r\n\r\n");
    EXPECT_EQ(head.refusal, nullptr);
    EXPECT_EQ(head.text, "GET / HTTP/1.1\r\nUSER-AGENT: d\r\n e\r\n\r\n");
    EXPECT_TRUE(head.expects_continue);
}

TEST(HeadersForNobody, AreTheParsersToJudgeWhenACarriageReturnIsInThem)
{
    for (const char *const line : {"Accept: a\rHost: b\r\n", "A\rB: c\r\n", "Accept: a\r\r\n"}) {
        EXPECT_EQ(http_head_filter(head_with(line)).text, head_with(line));
    }
    EXPECT_STREQ(http_head_filter(head_with("Accept: a\r\n b\rHost: c\r\n")).refusal,
                 "carriage return in a header");
}

TEST(HeadersThatAreRead, AreEightBesideTheOneThatTellsTheEndOfTheBody)
{
    string lines;
    string first_eight;
    for (int i = 0; i < 98; ++i) {
        const string line = "User-Agent: " + std::to_string(i) + "\r\n";
        lines += line;
        first_eight += i < 8 ? line : "";
    }
    const http_head head = http_head_filter(head_with(lines + "Content-Length: 3\r\n"));
    EXPECT_EQ(head.refusal, nullptr);
    EXPECT_EQ(head.text, head_with(first_eight + "Content-Length: 3\r\n"));
    EXPECT_EQ(head.body_size, 3U);
}

TEST(HeadersThatAreRead, HaveTheEndOfTheConnectionAmongThemWhereverItIs)
{
    string lines;
    for (int i = 0; i < 9; ++i) {
        lines += "User-Agent: a\r\n";
    }
    lines += "Connection: keep-alive\r\n";
    for (const string end : {"Connection: close\r\n", "connection:  CLOSE \r\n"}) {
        EXPECT_TRUE(http_head_filter(head_with(lines + end)).wants_close);
    }
    EXPECT_FALSE(http_head_filter(head_with(lines)).wants_close);
}

} // namespace
