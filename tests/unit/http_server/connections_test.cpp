// First: libevhtp's headers rename what the system's regex.h declares.
#include "fakes/no_descriptors.h"
#include "fakes/served_connections.h"

#include <fcntl.h>
#include <netinet/tcp.h>

#include "http_server/refusals.h"

namespace {

using namespace served_connections;

// Numbers

TEST_F(Connections, AConnectionAboveTheCapOfItsAddressIsClosedAtOnce)
{
    http_connection_limits limits;
    limits.total = 4;
    limits.per_address = 2;
    serve(limits);
    auto first = connected();
    const auto second = connected();
    EXPECT_TRUE(client()->is_closed());
    EXPECT_EQ(connected("127.0.0.2")->ask(get).status, 200);
    first.reset();
    ASSERT_TRUE(reaches(1));
    EXPECT_EQ(connected()->ask(get).status, 200);
}

TEST_F(Connections, AConnectionAboveTheTotalIsClosedAtOnce)
{
    http_connection_limits limits;
    limits.total = 3;
    limits.per_address = 2;
    serve(limits);
    auto first = connected();
    const auto second = connected();
    const auto third = connected("127.0.0.2");
    EXPECT_TRUE(client("127.0.0.2")->is_closed());
    EXPECT_EQ(http_connections_count(), 3U);
    first.reset();
    ASSERT_TRUE(reaches(2));
    EXPECT_EQ(connected("127.0.0.2")->ask(get).status, 200);
}

TEST_F(Connections, SocketsAreNotHandedToChildProcesses)
{
    serve();
    const auto peer = connected();
    peer->ask(get);
    EXPECT_NE(fcntl(last_socket, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(evconnlistener_get_fd(htp->server), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(Connections, OutOfDescriptorsTheListenerRestsAndServesAgainWhenSomeAreFree)
{
    http_connection_limits limits;
    limits.listener_rest = {0, 20 * 1000};
    serve(limits);
    auto peer = client();
    const std::clock_t cpu_before = std::clock();
    {
        const no_descriptors none{3};
        turn_for(loop, 200ms);
    }
    const double cpu_s = static_cast<double>(std::clock() - cpu_before) / CLOCKS_PER_SEC;
    EXPECT_GE(log.count("on_accept_error - cannot accept: Too many open files"), 2);
    EXPECT_LE(log.count("cannot accept"), 12);
    EXPECT_LT(cpu_s, 0.15);
    EXPECT_EQ(http_connections_count(), 0U);
    ASSERT_TRUE(peer->handshake());
    EXPECT_EQ(peer->ask(get).status, 200);
}

TEST_F(Connections, TheListenerMayEndWhileItRests)
{
    http_connection_limits limits;
    limits.listener_rest = {0, 20 * 1000};
    serve(limits);
    const auto peer = client();
    {
        const no_descriptors none{3};
        EXPECT_TRUE(turn_until(loop, [this] { return log.contains("cannot accept"); }));
        stop();
    }
    turn_for(loop, 50ms);
}

// Time

TEST_F(Connections, ASocketWithoutHandshakeIsClosedWhenItsTimeIsUp)
{
    serve(quick());
    const auto peer = client();
    ASSERT_TRUE(reaches(1));
    EXPECT_TRUE(peer->is_closed());
    EXPECT_EQ(http_connections_count(), 0U);
}

TEST_F(Connections, AHalfDoneHandshakeIsClosedWhenItsTimeIsUp)
{
    serve(quick());
    const auto peer = client();
    EXPECT_EQ(SSL_do_handshake(peer->tls()), -1); // sends the hello and never reads on
    ASSERT_TRUE(reaches(1));
    EXPECT_TRUE(reaches(0));
}

// What is held

TEST_F(Connections, AboveWhatAllMayHoldTheGreediestOfTheGreediestAddressGoes)
{
    http_connection_limits limits;
    limits.held = 64 * 1024;
    serve(limits);
    const auto phone = connected("127.0.0.2");
    phone->send("POST /now HTTP/1.1\r\nContent-Length: 3\r\nX-Attestation: " + string(15000, 'a') +
                "\r\n\r\n");
    const string part = "GET /now HTTP/1.1\r\nA: " + string(8000, 'a');
    std::vector<std::unique_ptr<https_client>> greedy;
    for (int i = 0; i < 12; ++i) {
        greedy.push_back(connected());
        greedy.back()->send(part);
        turn_for(loop, 2ms);
    }
    EXPECT_LT(http_connections_count(), 13U);
    EXPECT_GE(log.count("WARN velm_http_server - keep_within_memory - closing a connection"), 1);
    EXPECT_EQ(phone->ask("abc").status, 200);
}

TEST_F(Connections, WhoHoldsLittleIsServedBesideRequestsThatAreChecked)
{
    serve();
    const auto phone = connected();
    phone->send("POST /pause HTTP/1.1\r\nContent-Length: 3\r\nX-Attestation: " +
                string(16384, 'a') + "\r\n\r\nabc");
    ASSERT_TRUE(pauses());
    http_connection_limits limits;
    limits.held_of_address = 8 * 1024; // which the other is beyond
    http_connections_attach(htp.get(), limits);
    EXPECT_EQ(connected()->ask(get).status, 200);
    answer_paused();
    EXPECT_EQ(phone->receive().status, 200);
}

TEST_F(Connections, ARequestThatIsCheckedCountsOnceInWhatAllMayHold)
{
    http_connection_limits limits;
    limits.held = 80 * 1024;
    serve(limits);
    std::vector<std::unique_ptr<https_client>> phones;
    for (std::size_t i = 0; i < 2; ++i) {
        phones.push_back(connected("127.0.0.2"));
        phones.back()->send("POST /pause HTTP/1.1\r\nContent-Length: 8000\r\nX-Attestation: " +
                            string(15000, 'a') + "\r\n\r\n" + string(8000, 'b'));
        ASSERT_TRUE(turn_until(loop, [i] { return paused.size() == i + 1; }));
    }
    // Two of 23 KiB leave room for one that is not whole yet, and would have to go first; counted
    // twice they would not.
    const auto next = connected();
    next->send("GET /now HTTP/1.1\r\nA: " + string(8000, 'a'));
    turn_for(loop, 20ms);
    EXPECT_EQ(log.count("keep_within_memory"), 0);
    EXPECT_EQ(next->ask("\r\n\r\n").status, 200);
    answer_paused();
    answer_paused();
    EXPECT_EQ(phones[0]->receive().status, 200);
    EXPECT_EQ(phones[1]->receive().status, 200);
}

TEST_F(Connections, OfManyThatHoldLittleTheAddressThatHoldsMostPays)
{
    http_connection_limits limits;
    limits.held = 60 * 1024;
    limits.held_of_address = 60 * 1024;
    serve(limits);
    const string part = "GET /now HTTP/1.1\r\nA: " + string(3500, 'a');
    std::vector<std::unique_ptr<https_client>> greedy;
    for (int i = 0; i < 15; ++i) {
        greedy.push_back(connected("127.0.0.3"));
        greedy.back()->send(part);
        turn_for(loop, 2ms);
    }
    const auto phone = connected("127.0.0.2");
    phone->send("POST /now HTTP/1.1\r\nContent-Length: 3\r\nX-Attestation: " + string(12000, 'a') +
                "\r\n\r\n");
    turn_for(loop, 5ms);
    EXPECT_GE(log.count("keep_within_memory - closing a connection"), 1);
    EXPECT_EQ(log.count("keep_within_memory - closing a connection"), log.count(": 127.0.0.3"));
    EXPECT_EQ(phone->ask("abc").status, 200);
}

TEST_F(Connections, ARequestForWhichItsAddressHasNoRoomIsEndedBeforeItReachesItsRoute)
{
    http_connection_limits limits;
    limits.held_of_address = 40 * 1024;
    serve(limits);
    const string request =
        "POST /pause HTTP/1.1\r\nContent-Length: 3\r\nX-Attestation: " + string(15000, 'a') +
        "\r\n\r\nabc";
    std::vector<std::unique_ptr<https_client>> greedy;
    for (int i = 0; i < 4; ++i) {
        greedy.push_back(connected());
        greedy.back()->send(request);
        turn_for(loop, 5ms);
    }
    EXPECT_EQ(paused.size(), 2U);
    EXPECT_EQ(connected("127.0.0.2")->ask(get).status, 200);
    while (!paused.empty()) {
        answer_paused();
    }
    EXPECT_EQ(greedy[0]->receive().status, 200);
}

TEST_F(Connections, WhatTheChecksKeepOfABodyCountsUntilItsRequestIsAnswered)
{
    http_connection_limits limits;
    limits.held_of_address = 40 * 1024;
    serve(limits);
    kept_of_paused = 30 * 1024;
    const auto first = connected();
    first->send(get_paused);
    ASSERT_TRUE(pauses());
    const string part = "GET /now HTTP/1.1\r\nA: " + string(8000, 'a');
    const auto second = connected();
    second->send(part + string(7000, 'a'));
    EXPECT_TRUE(second->is_closed());
    EXPECT_EQ(log.count("WARN velm_http_server - keep_within_memory - closing a connection"), 1);
    answer_paused();
    EXPECT_EQ(first->receive().status, 200);
    const auto third = connected();
    third->send(part);
    third->send("\r\n\r\n");
    EXPECT_EQ(third->receive().status, 200);
}

TEST_F(Connections, WhatNobodyReadsIsBoundedInTheKernelToo)
{
    serve();
    const auto peer = connected();
    peer->ask(get);
    int size = 0;
    socklen_t length = sizeof size;
    ASSERT_EQ(getsockopt(last_socket, SOL_SOCKET, SO_SNDBUF, &size, &length), 0);
    EXPECT_EQ(size, 32 * 1024);
    ASSERT_EQ(getsockopt(last_socket, SOL_SOCKET, SO_RCVBUF, &size, &length), 0);
    EXPECT_EQ(size, 32 * 1024);
}

TEST_F(Connections, ThoseWhoHaveLeftAlreadyTakeNoPlace)
{
    serve();
    for (int i = 0; i < 40; ++i) {
        client()->reset();
    }
    const auto peer = client("127.0.0.2");
    ASSERT_TRUE(reaches(1));
    EXPECT_EQ(log.count("too many connections"), 0);
    ASSERT_TRUE(peer->handshake());
    EXPECT_EQ(peer->ask(get).status, 200);
}

TEST_F(Connections, OfManyRefusalsSomeAreToldAndTheOthersCounted)
{
    http_connection_limits limits;
    limits.per_address = 1;
    serve(limits);
    const auto first = connected();
    for (std::size_t i = 0; i < http_refusals_of_address + 20; ++i) {
        EXPECT_TRUE(client()->is_closed());
    }
    EXPECT_EQ(log.count("too many connections: 1, 1 of this address: 127.0.0.1"),
              static_cast<int>(http_refusals_of_address));
    const auto other = connected("127.0.0.2");
    EXPECT_TRUE(client("127.0.0.2")->is_closed());
    EXPECT_EQ(log.count("too many connections: 2, 1 of this address: 127.0.0.2"), 1);
}

TEST_F(Connections, AnIdleConnectionIsClosedWhenItsTimeIsUp)
{
    serve(quick());
    const auto peer = connected();
    EXPECT_EQ(peer->ask(get).status, 200);
    EXPECT_TRUE(peer->is_closed());
}

struct drip_case {
    const char *name, *start;
};
class Drip : public Connections, public testing::WithParamInterface<drip_case> {};
TEST_P(Drip, GainsNoTime)
{
    serve(quick());
    const auto peer = connected();
    const auto begin = std::chrono::steady_clock::now();
    peer->send(GetParam().start);
    while (!peer->has_ended() && std::chrono::steady_clock::now() - begin < 5s) {
        peer->send("a");
        turn_for(loop, 5ms);
    }
    EXPECT_TRUE(peer->has_ended());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
    EXPECT_TRUE(seen.empty());
}
INSTANTIATE_TEST_SUITE_P(
    Places, Drip,
    testing::Values(drip_case{"Head", "GET /now HTTP/1.1\r\nA: "},
                    drip_case{"Body", "POST /now HTTP/1.1\r\nContent-Length: 8000\r\n\r\n"}),
    [](const auto &row) { return string{row.param.name}; });

TEST_F(Connections, APausedRequestIsNotClosedAndTheTimeBeginsAgainAfterItsReply)
{
    serve(quick());
    const auto peer = connected();
    peer->send(get_paused);
    ASSERT_TRUE(pauses());
    turn_for(loop, 350ms);
    EXPECT_EQ(http_connections_count(), 1U);
    answer_paused();
    EXPECT_EQ(peer->receive().status, 200);
    const auto replied = std::chrono::steady_clock::now();
    EXPECT_TRUE(peer->is_closed());
    EXPECT_GT(std::chrono::steady_clock::now() - replied, 80ms);
}

TEST_F(Connections, WhatComesWhileARequestIsPausedWakesTheLoopOnceAndIsReadAfterTheReply)
{
    serve();
    const auto peer = connected();
    peer->send(get_paused);
    ASSERT_TRUE(pauses());
    const event *const watch = &paused.back()->conn->bev->ev_read;
    turn_for(loop, 0ms);
    EXPECT_NE(event_pending(watch, EV_READ, nullptr), 0) << "the kernel was asked for nothing";
    peer->send(get);
    EXPECT_TRUE(turn_until(loop, [watch] { return event_pending(watch, EV_READ, nullptr) == 0; }));
    EXPECT_EQ(seen.size(), 1U);
    answer_paused();
    EXPECT_EQ(peer->receive().status, 200);
    EXPECT_EQ(peer->receive().status, 200);
    EXPECT_EQ(peer->ask(get).status, 200) << "reading is on again";
}

TEST_F(Connections, AReplyThatNobodyReadsEndsTheConnection)
{
    serve(quick());
    const auto peer = connected();
    peer->send("GET /much HTTP/1.1\r\nHost: a\r\n\r\n");
    ASSERT_TRUE(reaches(1));
    EXPECT_TRUE(reaches(0));
}

TEST_F(Connections, WhatComesBehindARequestIsHeldUpToALimit)
{
    serve();
    const auto peer = connected();
    peer->send("GET /much HTTP/1.1\r\nHost: a\r\n\r\n");
    for (int piece = 0; piece < 18; ++piece) { // the kernel takes 32 KiB until they are read
        peer->send(string(4096, 'a'));
        turn_for(loop, 1ms);
    }
    turn_for(loop, 10ms);
    EXPECT_EQ(http_connections_count(), 1U);
    peer->send("a");
    EXPECT_TRUE(reaches(0));
    EXPECT_TRUE(log.has("WARN velm_http_server - refuse - too much behind a request: 127.0.0.1"));
}

// Stop

TEST_F(Connections, ClosingEndsConnectionsOfEveryKind)
{
    serve();
    const auto bare = client();
    const auto half_handshake = client();
    EXPECT_EQ(SSL_do_handshake(half_handshake->tls()), -1);
    const auto silent = connected();
    const auto idle = connected();
    EXPECT_EQ(idle->ask(get).status, 200);
    const auto half_head = connected();
    half_head->send("GET /now HTTP/1.1\r\nHo");
    const auto half_body = connected();
    half_body->send("POST /now HTTP/1.1\r\nContent-Length: 9\r\n\r\nab");
    const auto in_flight = connected();
    in_flight->send(get_paused);
    const auto unread = connected();
    unread->send("GET /much HTTP/1.1\r\nHost: a\r\n\r\n");
    const auto refused = connected();
    refused->send("POST /now HTTP/1.1\r\nContent-Length: 8193\r\n\r\n");
    ASSERT_TRUE(pauses());
    turn_for(loop, 20ms);
    EXPECT_EQ(http_connections_count(), 9U);
    stop();
    EXPECT_EQ(http_connections_count(), 0U);
    for (https_client *const peer : {bare.get(), silent.get(), idle.get(), half_head.get(),
                                     half_body.get(), in_flight.get(), refused.get()}) {
        EXPECT_TRUE(peer->is_closed());
    }
    turn_for(loop, 20ms);
    EXPECT_EQ(seen.size(), 2U);
}

TEST_F(Connections, AClientThatGoesWhileItsRequestIsPausedHarmsNobody)
{
    serve();
    for (const bool by_reset : {true, false}) {
        auto peer = connected();
        peer->send(get_paused);
        ASSERT_TRUE(pauses());
        if (by_reset) {
            peer->reset();
        }
        peer.reset();
        turn_for(loop, 10ms);
        answer_paused();
        EXPECT_TRUE(reaches(0));
    }
}

struct half_close_case {
    const char *name;
    bool by_tls, before_the_request_is_read;
};
class HalfClose : public Connections, public testing::WithParamInterface<half_close_case> {};
TEST_P(HalfClose, StillGetsTheReply)
{
    serve();
    const auto peer = connected();
    peer->send(get_paused);
    if (!GetParam().before_the_request_is_read) {
        ASSERT_TRUE(pauses());
    }
    if (GetParam().by_tls) {
        SSL_shutdown(peer->tls());
    }
    shutdown(peer->fd(), SHUT_WR);
    ASSERT_TRUE(pauses());
    turn_for(loop, 10ms);
    answer_paused();
    EXPECT_EQ(peer->receive().status, 200);
    EXPECT_TRUE(peer->is_closed());
    EXPECT_TRUE(reaches(0));
}
INSTANTIATE_TEST_SUITE_P(Ways, HalfClose,
                         testing::Values(half_close_case{"TlsWhilePaused", true, false},
                                         half_close_case{"TcpWhilePaused", false, false},
                                         half_close_case{"TlsAtOnce", true, true},
                                         half_close_case{"TcpAtOnce", false, true}),
                         [](const auto &row) { return string{row.param.name}; });

TEST_F(Connections, AClientThatEndsWithoutAGoodbyeIsToldNothing)
{
    serve();
    const auto peer = connected();
    peer->send("GET /now HTTP/1.1\r\n\r\n");
    EXPECT_EQ(peer->receive().status, 200);
    shutdown(peer->fd(), SHUT_WR);
    EXPECT_TRUE(reaches(0));
    char byte = 0;
    EXPECT_EQ(recv(peer->fd(), &byte, 1, MSG_DONTWAIT), 0) << "the end of TCP comes first";
}

TEST_F(Connections, AClientThatGoesInTheMiddleOfAnythingIsForgotten)
{
    serve();
    for (const char *const part :
         {"", "GET /now HTTP/1.1\r\nA", "POST /now HTTP/1.1\r\nContent-Length: 9\r\n\r\nab"}) {
        auto peer = connected();
        peer->send(part);
        turn_for(loop, 2ms);
        peer->reset();
        EXPECT_TRUE(reaches(0)) << part;
    }
}

} // namespace
