// First: libevhtp's headers rename what the system's regex.h declares.
#include "fakes/served_connections.h"

#include "http_server/intake.h"

#include <netinet/tcp.h>

#include <random>

namespace {

using namespace served_connections;

class Intake : public Connections {};

// What arrives

TEST_F(Intake, SeveralRequestsAreServedOnOneConnection)
{
    serve();
    const auto peer = connected();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(peer->ask(get).body, "ok");
    }
    EXPECT_EQ(http_connections_count(), 1U);
}

TEST_F(Intake, ConnectionCloseEndsAfterTheWholeReply)
{
    serve();
    const auto peer = connected();
    const http_reply reply = peer->ask("GET /much HTTP/1.1\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(reply.body.size(), 16U << 20U);
    EXPECT_TRUE(peer->is_closed());
}

struct stay_case {
    const char *name, *version, *header;
    bool stays;
};
class AnsweredConnection : public Intake, public testing::WithParamInterface<stay_case> {};
TEST_P(AnsweredConnection, StaysOrEndsAsTheHeadSays)
{
    serve();
    const auto peer = connected();
    const http_reply reply = peer->ask(string{"GET /now HTTP/"} + GetParam().version + "\r\n" +
                                       GetParam().header + "\r\n");
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.head.find("Connection: ") == string::npos, GetParam().header[0] == '\0');
    if (GetParam().stays) {
        EXPECT_EQ(peer->ask(get).status, 200);
        EXPECT_EQ(peer->ask(get).status, 200); // the header spoke of its own request only
    } else {
        EXPECT_TRUE(peer->is_closed());
    }
}
constexpr char close_header[] = "Connection: Close\r\n";
constexpr char keep_header[] = "Connection: keep-alive\r\n";
INSTANTIATE_TEST_SUITE_P(Heads, AnsweredConnection,
                         testing::Values(stay_case{"OfVersion11", "1.1", "", true},
                                         stay_case{"OfVersion11Closing", "1.1", close_header,
                                                   false},
                                         stay_case{"OfVersion10", "1.0", "", false},
                                         stay_case{"OfVersion10Kept", "1.0", keep_header, true}),
                         [](const auto &row) { return string{row.param.name}; });

struct value_case {
    const char *name, *header;
    std::size_t sent, arrives;
};
class LongHeader : public Intake, public testing::WithParamInterface<value_case> {};
TEST_P(LongHeader, ArrivesForTheRoute)
{
    serve();
    const auto peer = connected();
    const string value(GetParam().sent, 'v');
    const http_reply reply = peer->ask("POST /now HTTP/1.1\r\nContent-Length: 4\r\n" +
                                       string{GetParam().header} + ": " + value + "\r\n\r\nbody");
    ASSERT_EQ(reply.status, 200);
    const bool is_assertion = GetParam().header == string{"X-Assertion"};
    EXPECT_EQ(is_assertion ? seen[0].assertion : seen[0].attestation,
              string(GetParam().arrives, 'v'));
    EXPECT_EQ(is_assertion ? seen[0].attestation : seen[0].assertion, "(none)");
    EXPECT_EQ(seen[0].body, "body");
    // Nothing of it stays for the next request.
    EXPECT_EQ(peer->ask(get).status, 200);
    EXPECT_EQ(seen[1].assertion + seen[1].attestation, "(none)(none)");
}
INSTANTIATE_TEST_SUITE_P(Sizes, LongHeader,
                         testing::Values(value_case{"Assertion0", "X-Assertion", 0, 0},
                                         value_case{"Assertion8191", "X-Assertion", 8191, 8191},
                                         value_case{"Assertion8192", "X-Assertion", 8192, 8192},
                                         value_case{"Assertion16384", "X-Assertion", 16384, 16384},
                                         value_case{"Attestation8192", "X-Attestation", 8192, 8192},
                                         value_case{"Attestation16384", "X-Attestation", 16384,
                                                    16384}),
                         [](const auto &row) { return string{row.param.name}; });

TEST_F(Intake, BothLongHeadersOfOneRequestArrive)
{
    serve();
    const auto peer = connected();
    peer->ask("GET /now HTTP/1.1\r\nX-Assertion: " + string(16384, 'a') +
              "\r\nX-Attestation: " + string(16384, 'b') + "\r\n\r\n");
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(seen[0].assertion, string(16384, 'a'));
    EXPECT_EQ(seen[0].attestation, string(16384, 'b'));
}

TEST_F(Intake, AHeadThatIsSplitAnywhereArrivesTheSame)
{
    serve();
    const auto peer = connected();
    const string request =
        "POST /split/request?a=b HTTP/1.1\r\nhost: a\r\nx-assertion: one\r\n\ttwo"
        "\r\nContent-Length: 3\r\n\r\nabc";
    for (std::size_t split = 1; split < request.size(); ++split) {
        seen.clear();
        peer->send(request.substr(0, split));
        turn_for(loop, 0ms);
        ASSERT_EQ(peer->ask(request.substr(split)).status, 200) << split;
        ASSERT_EQ(seen.size(), 1U);
        ASSERT_EQ(seen[0].path, "/split/request") << split;
        ASSERT_EQ(seen[0].assertion, "one two") << split;
        ASSERT_EQ(seen[0].body, "abc") << split;
    }
}

TEST_F(Intake, ARequestThatComesByteByByteArrivesTheSame)
{
    serve();
    const auto peer = connected();
    for (const char byte : string{"POST /now HTTP/1.1\r\nX-Assertion: a\r\n"
                                  "Transfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n"}) {
        peer->send({&byte, 1});
        turn_for(loop, 0ms);
    }
    EXPECT_EQ(peer->receive().status, 200);
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(seen[0].assertion, "a");
    EXPECT_EQ(seen[0].body, "abc");
}

TEST_F(Intake, RecordsThatComeTogetherAreAllRead)
{
    serve();
    const auto peer = connected(); // and that the end of the handshake is among them
    for (const char byte : string{get}) {
        peer->send({&byte, 1});
    }
    EXPECT_EQ(peer->receive().status, 200);
    for (const char byte : string{get_paused} + string{get}) {
        peer->send({&byte, 1});
    }
    ASSERT_TRUE(pauses());
    turn_for(loop, 5ms);
    EXPECT_EQ(seen.size(), 2U);
    answer_paused();
    EXPECT_EQ(peer->receive().status, 200);
    EXPECT_EQ(peer->receive().status, 200);
}

TEST_F(Intake, AnEndThatComesWithARequestIsNoticedBehindTheReply)
{
    serve();
    for (const char *const request : {get, get_paused}) {
        const auto peer = connected();
        peer->send(request);
        SSL_shutdown(peer->tls()); // the socket itself stays open
        if (request == get_paused) {
            ASSERT_TRUE(pauses());
            answer_paused();
        }
        EXPECT_EQ(peer->receive().status, 200);
        EXPECT_TRUE(reaches(0));
    }
}

TEST_F(Intake, AClientThatHasEndedIsSentNothingMore)
{
    serve();
    const auto peer = connected();
    EXPECT_EQ(peer->ask(get).status, 200);
    SSL_shutdown(peer->tls());
    EXPECT_TRUE(reaches(0));
    char bytes[1];
    EXPECT_EQ(recv(peer->fd(), bytes, sizeof bytes, 0), 0);
}

TEST_F(Intake, AClientThatWeEndIsTold)
{
    serve(quick());
    const auto peer = connected();
    EXPECT_TRUE(peer->is_closed());
    EXPECT_NE(SSL_get_shutdown(peer->tls()) & SSL_RECEIVED_SHUTDOWN, 0);
}

TEST_F(Intake, RequestsThatComeTogetherAreServedOneAfterTheOther)
{
    serve();
    const auto peer = connected();
    const string post = "POST /now HTTP/1.1\r\nContent-Length: 3\r\nX-Assertion: a\r\n\r\nabc";
    peer->send(post + get_paused + get + get);
    EXPECT_EQ(peer->receive().status, 200);
    ASSERT_TRUE(pauses());
    EXPECT_EQ(seen.size(), 2U);
    answer_paused();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(peer->receive().status, 200);
    }
    EXPECT_EQ(seen.size(), 4U);
}

TEST_F(Intake, EveryRecordThatLiesInTheSocketIsRead)
{
    serve();
    const auto peer = connected();
    const string requests = string{get} + get_paused + get;
    for (int round = 0; round < 3; ++round) {
        for (const char byte : requests) {
            peer->send({&byte, 1});
        }
        peer->send(string{get} + "GET /now");
        peer->send(" HTTP/1.1\r\n\r\n");
        EXPECT_EQ(peer->receive().status, 200);
        ASSERT_TRUE(pauses());
        answer_paused();
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(peer->receive().status, 200) << i;
        }
    }
    EXPECT_EQ(seen.size(), 15U);
}

// All in one turn: what comes while reading is off takes the socket off the loop, the turn begins in
// which the rest of the first read would be looked at, and the reply leaves, which enables reading.
TEST_F(Intake, WhatComesAfterAReplyToAClientThatSendsEarlyIsRead)
{
    serve();
    const auto peer = connected();
    peer->send(get_paused);
    peer->send("GET /now"); // is taken from the kernel together with the request before
    ASSERT_TRUE(pauses());
    peer->send(" HTTP/1.1"); // while reading is off
    answer_paused();
    EXPECT_EQ(peer->receive().status, 200);
    EXPECT_EQ(peer->ask("\r\nHost: a\r\n\r\n").status, 200);
    EXPECT_EQ(seen.size(), 2U);
}

TEST_F(Intake, ARequestInOnePacketWithTheEndOfTheHandshakeIsServed)
{
    serve();
    const auto peer = client();
    const int on = 1;
    const int off = 0;
    setsockopt(peer->fd(), IPPROTO_TCP, TCP_CORK, &on, sizeof on);
    ASSERT_TRUE(peer->handshake());
    peer->send(get);
    peer->send(get);
    setsockopt(peer->fd(), IPPROTO_TCP, TCP_CORK, &off, sizeof off);
    EXPECT_EQ(peer->receive().status, 200);
    EXPECT_EQ(peer->receive().status, 200);
}

TEST_F(Intake, AFloodOfSmallRecordsKeepsNobodyWaiting)
{
    serve();
    const auto flood = connected();
    const auto other = connected();
    for (int i = 0; i < 500; ++i) {
        flood->send("x");
    }
    other->send(get);
    for (int turn = 0; turn < 20 && seen.empty(); ++turn) {
        event_base_loop(loop, EVLOOP_ONCE | EVLOOP_NONBLOCK);
    }
    EXPECT_EQ(seen.size(), 1U);
    EXPECT_EQ(other->receive().status, 200);
}

TEST_F(Intake, ARequestBehindAChunkedOneIsLookedAtToo)
{
    serve();
    for (const char *const path : {"/pause", "/now"}) {
        seen.clear();
        const auto peer = connected();
        peer->send("POST " + string{path} +
                   " HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\na\nc\r\n0\r\n\r\n"
                   "GET /now HTTP/1.1\r\nX-Assertion: " +
                   string(10000, 'a') + "\r\n\r\n");
        ASSERT_TRUE(turn_until(loop, [] { return !seen.empty(); }));
        if (!paused.empty()) {
            answer_paused();
        }
        EXPECT_EQ(peer->receive().status, 200);
        EXPECT_EQ(peer->receive().status, 200);
        EXPECT_EQ(seen.at(0).body, "a\nc");
        EXPECT_EQ(seen.at(1).assertion, string(10000, 'a'));
    }
}

TEST_F(Intake, AClientThatAwaitsLeaveToSendItsBodyGetsIt)
{
    serve();
    const auto peer = connected();
    EXPECT_EQ(
        peer->ask("POST /now HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 3\r\n\r\n").status,
        100);
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(peer->ask("abc").status, 200);
    EXPECT_EQ(peer->ask(get).status, 200);
}

TEST_F(Intake, ABodyThatComesByteByByteTakesWhatItsLengthSays)
{
    serve();
    for (const bool chunked : {false, true}) {
        seen.clear();
        const auto peer = connected();
        peer->send(chunked ? post("Transfer-Encoding: chunked\r\n")
                           : post("Content-Length: 2000\r\n"));
        for (int i = 0; i < 2000; ++i) {
            peer->send(chunked ? "1\r\nb\r\n" : "b");
            if (i % 100 == 0) {
                turn_for(loop, 0ms);
            }
        }
        if (chunked) {
            peer->send("0\r\n\r\n");
        }
        EXPECT_EQ(peer->receive().status, 200);
        ASSERT_EQ(seen.size(), 1U);
        EXPECT_EQ(seen[0].body, string(2000, 'b'));
        EXPECT_EQ(seen[0].body_pieces, 1);
    }
}

// Limits

struct body_case {
    const char *name;
    std::size_t size;
    bool chunked, served;
};
class BodySize : public Intake, public testing::WithParamInterface<body_case> {};
TEST_P(BodySize, IsServedUpTo8192Bytes)
{
    serve();
    const auto peer = connected();
    const string body(GetParam().size, 'b');
    if (GetParam().chunked) {
        char size[16];
        std::snprintf(size, sizeof size, "%zx\r\n", body.size() - 1);
        peer->send("POST /now HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nb\r\n" +
                   string{size} + body.substr(1) + "\r\n0\r\n\r\n");
    } else {
        peer->send("POST /now HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
                   "\r\n\r\n" + body);
    }
    EXPECT_EQ(peer->receive().status, GetParam().served ? 200 : 413);
    EXPECT_EQ(seen.size(), GetParam().served ? 1U : 0U);
    if (GetParam().served) {
        EXPECT_EQ(seen[0].body, body);
    }
}
INSTANTIATE_TEST_SUITE_P(Sizes, BodySize,
                         testing::Values(body_case{"Length8191", 8191, false, true},
                                         body_case{"Length8192", 8192, false, true},
                                         body_case{"Length8193", 8193, false, false},
                                         body_case{"Chunked8191", 8191, true, true},
                                         body_case{"Chunked8192", 8192, true, true},
                                         body_case{"Chunked8193", 8193, true, false}),
                         [](const auto &row) { return string{row.param.name}; });

TEST_F(Intake, ABodyThatIsAnnouncedTooLongIsRefusedBeforeItComes)
{
    serve();
    const auto peer = connected();
    const http_reply reply = peer->ask("POST /now HTTP/1.1\r\nContent-Length: 8193\r\n\r\n");
    EXPECT_EQ(reply.head.substr(0, reply.head.find("\r\n")), "HTTP/1.1 413 Content Too Large");
    EXPECT_NE(reply.head.find("Content-Length: 0\r\nConnection: close"), string::npos);
    EXPECT_TRUE(log.has("WARN velm_http_server - refuse - body too long: 127.0.0.1"));
    EXPECT_TRUE(peer->is_closed());
}

TEST_F(Intake, AChunkThatIsAnnouncedTooLongIsRefusedBeforeItComes)
{
    serve();
    for (const char *const chunks : {"2001\r\n", "1000\r\n", "ffffffffffffffff\r\n"}) {
        const auto peer = connected();
        peer->send("POST /now HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1001\r\n" +
                   string(4097, 'a') + "\r\n");
        EXPECT_EQ(peer->ask(chunks).status, 413) << chunks;
    }
    EXPECT_TRUE(seen.empty());
}

TEST_F(Intake, ARefusedClientThatSendsOnCanStillReadWhy)
{
    serve();
    const auto peer = connected();
    peer->send("POST /now HTTP/1.1\r\nContent-Length: 900000\r\n\r\n");
    for (int i = 0; i < 50; ++i) {
        peer->send(string(16384, 'b'));
        turn_for(loop, 0ms);
    }
    EXPECT_EQ(peer->receive().status, 413);
    EXPECT_EQ(log.count("refuse - "), 1);
}

/// A TLS record with these bytes, as the client would send it next.
string record_of(SSL *tls, const string &bytes)
{
    BIO *const socket = SSL_get_wbio(tls);
    BIO_up_ref(socket);
    const bio_ptr memory{BIO_new(BIO_s_mem())};
    BIO_up_ref(memory.get());
    SSL_set0_wbio(tls, memory.get());
    EXPECT_EQ(SSL_write(tls, bytes.data(), static_cast<int>(bytes.size())),
              static_cast<int>(bytes.size()));
    char *record = nullptr;
    const long size = BIO_get_mem_data(memory.get(), &record);
    const string made{record, static_cast<std::size_t>(size)};
    SSL_set0_wbio(tls, socket);
    return made;
}

TEST_F(Intake, ARefusedClientThatIsAloneKeepsItsAnswerWhileItsNextRecordIsOnTheWay)
{
    serve();
    const auto peer = connected();
    string head{"GET /now HTTP/1.1\r\n"};
    while (head.size() <= std::size_t{64} * 1024) {
        head += "X: y\r\n";
    }
    peer->send(head);
    ASSERT_TRUE(turn_until(loop, [this] { return log.contains("head too long"); }));
    const string next = record_of(peer->tls(), string(16384, 'x'));
    ASSERT_EQ(::send(peer->fd(), next.data(), next.size() - 1, 0),
              static_cast<ssize_t>(next.size()) - 1);
    turn_for(loop, 20ms);
    EXPECT_EQ(http_connections_count(), 1U);
    EXPECT_FALSE(log.contains("together they hold"));
    ASSERT_EQ(::send(peer->fd(), &next.back(), 1, 0), 1);
    EXPECT_EQ(peer->receive().status, 431);
}

TEST_F(Intake, ARefusedClientThatHasEndedAlreadyIsToldTooAndClosedAtOnce)
{
    http_connection_limits limits;
    limits.linger_time = {60, 0};
    serve(limits);
    const auto peer = connected();
    peer->send("POST /now HTTP/1.1\r\nContent-Length: 8193\r\n\r\n");
    SSL_shutdown(peer->tls());
    shutdown(peer->fd(), SHUT_WR);
    EXPECT_EQ(peer->receive().status, 413);
    EXPECT_TRUE(reaches(0));
}

TEST_F(Intake, ARefusedClientIsClosedWhenItHasNotEndedInTime)
{
    http_connection_limits limits;
    limits.linger_time = {0, 50 * 1000};
    serve(limits);
    const auto peer = connected();
    peer->send("POST /now HTTP/1.1\r\nContent-Length: 8193\r\n\r\n");
    ASSERT_TRUE(turn_until(loop, [this] { return log.contains("body too long"); }));
    EXPECT_EQ(http_connections_count(), 1U);
    EXPECT_TRUE(reaches(0));
}

TEST_F(Intake, ARefusedClientThatAwaitsLeaveToSendIsToldOnlyThatItMayNot)
{
    serve();
    const auto peer = connected();
    peer->send("POST /now HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 8193\r\n\r\n");
    EXPECT_EQ(peer->receive().status, 413);
    turn_for(loop, 20ms);
    EXPECT_EQ(http_connections_count(), 1U) << "closed before the client has ended";
}

TEST_F(Intake, ARefusedClientThatResetsIsForgotten)
{
    serve();
    const auto peer = connected();
    peer->send("POST /now HTTP/1.1\r\nContent-Length: 8193\r\n\r\n");
    ASSERT_TRUE(turn_until(loop, [this] { return log.contains("body too long"); }));
    peer->reset();
    turn_for(loop, 20ms);
    EXPECT_EQ(http_connections_count(), 0U) << "before its time to linger is up";
}

TEST_F(Intake, ABadRequestBehindAGoodOneIsRefusedAfterTheReply)
{
    serve();
    for (const char *const good : {get, get_paused}) {
        const auto peer = connected();
        peer->send(string{good} + "POST /now HTTP/1.1\r\nContent-Length: 8193\r\n\r\n");
        if (good == get_paused) {
            ASSERT_TRUE(pauses());
            answer_paused();
        }
        const http_reply first = peer->receive();
        EXPECT_EQ(first.status, 200);
        EXPECT_EQ(first.body, "ok");
        EXPECT_EQ(peer->receive().status, 413);
        peer->reset();
        EXPECT_TRUE(reaches(0));
    }
}

TEST_F(Intake, ARefusedClientThatSendsAMebibyteMoreIsClosedAtOnce)
{
    serve();
    const auto peer = connected();
    peer->send("POST /now HTTP/1.1\r\nContent-Length: 8193\r\n\r\n");
    for (int i = 0; i < 70 && !peer->has_ended(); ++i) {
        peer->send(string(16384, 'b'));
        turn_for(loop, 0ms);
    }
    EXPECT_TRUE(reaches(0));
    EXPECT_TRUE(log.contains("refuse - more behind a refused request"));
}

struct refused_case {
    const char *name;
    string request;
    int status = 0; // 0: what only the parser refuses gets no answer
};
class RefusedRequest : public Intake, public testing::WithParamInterface<refused_case> {};
TEST_P(RefusedRequest, ClosesTheConnectionAndCallsNoRoute)
{
    serve();
    const auto peer = connected();
    EXPECT_EQ(peer->ask(GetParam().request).status, GetParam().status);
    EXPECT_TRUE(peer->is_closed());
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(log.count("WARN velm_http_server - refuse - "), 1);
}
constexpr char chunked_abc[] = "3\r\nabc\r\n0\r\n\r\n";
INSTANTIATE_TEST_SUITE_P(
    Requests, RefusedRequest,
    testing::Values(
        refused_case{"Headers101", "GET /now HTTP/1.1\r\n" + many_headers(101) + "\r\n", 431},
        refused_case{"Value8193", "GET /now HTTP/1.1\r\nA: " + string(8193, 'a') + "\r\n\r\n", 431},
        refused_case{"Uri8192", "GET /" + string(8191, 'a') + " HTTP/1.1\r\n\r\n", 414},
        refused_case{"HeadThatNeverEnds", "GET /now HTTP/1.1\r\nA: " + string(70000, 'a'), 431},
        refused_case{"Http09", "GET /now\r\n\r\n", 400},
        refused_case{"BareLineFeeds", "GET /now HTTP/1.1\nHost: a\n\n", 400},
        refused_case{"ZeroByteInThePath", string("GET /now\0x HTTP/1.1\r\n\r\n", 23), 400},
        refused_case{"NoHttpAtAll", "\x16\x03\x01 no http\r\n\r\n"},
        refused_case{"Http09WithABody", "GET /now\r\nContent-Length: 1\r\n\r\nx", 400},
        refused_case{"Http09WithAChunkedBody",
                     "GET /now\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 400},
        refused_case{"LowerCaseMethod", "get /now HTTP/1.1\r\n\r\n"},
        refused_case{"BareCarriageReturn", "GET /now HTTP/1.1\r\nA: b\rC: d\r\n\r\n"},
        refused_case{"HeaderWithoutColon", "GET /now HTTP/1.1\r\nHost: a\r\nfoo\r\n\r\n", 400},
        refused_case{"NegativeLength", post("Content-Length: -1\r\n")},
        refused_case{"LengthOf20Digits", post("Content-Length: 99999999999999999999\r\n")},
        refused_case{"LengthThatWrapsAround", post("Content-Length: 30000000000000000000\r\n"),
                     413},
        refused_case{"LengthOf21Digits", post("Content-Length: 184467440737095516160\r\n")},
        refused_case{"LengthIsAList", post("Content-Length: 3, 3\r\n")},
        refused_case{"TwoLengths", post("Content-Length: 3\r\nContent-Length: 3\r\n", "abc"), 400},
        refused_case{"LengthBesideChunks",
                     post("Content-Length: 3\r\nTransfer-Encoding: chunked\r\n", chunked_abc), 400},
        refused_case{"ChunksBesideLength",
                     post("transfer-encoding: chunked\r\ncontent-length: 3\r\n", chunked_abc), 400},
        refused_case{"OtherEncoding", post("Transfer-Encoding: gzip\r\n"), 501},
        refused_case{"TwoEncodings", post("Transfer-Encoding: gzip, chunked\r\n", chunked_abc),
                     501},
        refused_case{"BlankBehindAName", post("Content-Length : 3\r\n", "abc"), 400},
        refused_case{"BlankBeforeAName", post(" Content-Length: 3\r\n", "abc"), 400},
        refused_case{"ChunkExtension",
                     post("Transfer-Encoding: chunked\r\n", "3;a=b\r\nabc\r\n0\r\n\r\n")},
        refused_case{"ChunkSizeThatIsNoNumber",
                     post("Transfer-Encoding: chunked\r\n", "g\r\nabc\r\n0\r\n\r\n")},
        refused_case{"ChunkSizeThatIsADash",
                     post("Transfer-Encoding: chunked\r\n", "-\r\nabc\r\n0\r\n\r\n")},
        refused_case{"ChunkSizeThatEndsInASemicolon",
                     post("Transfer-Encoding: chunked\r\n", "3;\r\nabc\r\n0\r\n\r\n")},
        refused_case{"ChunkThatIsLonger",
                     post("Transfer-Encoding: chunked\r\n", "2\r\nabc\r\n0\r\n\r\n")},
        refused_case{"Assertion16385",
                     "GET /now HTTP/1.1\r\nX-Assertion: " + string(16385, 'a') + "\r\n\r\n", 400},
        refused_case{"Attestation50000",
                     "GET /now HTTP/1.1\r\nX-Attestation: " + string(50000, 'a') + "\r\n\r\n", 400},
        refused_case{"LineThatNeverEnds", "GET /now HTTP/1.1\r\nX-Assertion: " + string(16436, 'a'),
                     400}),
    [](const auto &row) { return string{row.param.name}; });

TEST_F(Intake, ChunkedIsKnownInAnyCaseAndOneTrailerIsPassedOver)
{
    serve();
    const auto peer = connected();
    EXPECT_EQ(peer->ask(post("Transfer-Encoding:\tCHUNKED\r\n",
                             "3\r\nabc\r\n0\r\nX-Assertion: a\r\n\r\n"))
                  .status,
              200);
    EXPECT_EQ(peer->ask(get).status, 200);
    ASSERT_EQ(seen.size(), 2U);
    EXPECT_EQ(seen[0].body, "abc");
    EXPECT_EQ(seen[0].assertion, "(none)");
}

TEST_F(Intake, BentRequestsHarmNobody)
{
    serve();
    const string request = "POST /now?a=b HTTP/1.1\r\nHost: a\r\nX-Assertion: one\r\n\ttwo\r\n"
                           "Transfer-Encoding: chunked\r\n\r\n"
                           "3\r\nabc\r\n0\r\n\r\n";
    const string bytes{"\0\r\n\t :;%/?#\xff"
                       "09aZ",
                       16};
    std::minstd_rand random{1};
    for (int round = 0; round < 150; ++round) {
        string bent = request + request;
        for (int i = 0; i < 4; ++i) {
            bent.at(random() % bent.size()) = bytes.at(random() % bytes.size());
        }
        const std::size_t split = random() % bent.size();
        const auto peer = connected();
        peer->send(bent.substr(0, split));
        turn_for(loop, 0ms);
        peer->send(bent.substr(split));
        turn_for(loop, 0ms);
    }
    EXPECT_EQ(connected()->ask(get).status, 200);
}

TEST_F(Intake, AHundredHeadersAndTheLongestValueAreServed)
{
    serve();
    const auto peer = connected();
    EXPECT_EQ(peer->ask("GET /now HTTP/1.1\r\n" + many_headers(99) + "A: " + string(8192, 'a') +
                        "\r\n\r\n")
                  .status,
              200);
}

} // namespace
