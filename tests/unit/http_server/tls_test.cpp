// First: libevhtp's headers rename what the system's regex.h declares.
#include "fakes/served_connections.h"

#include "http_server/tls.h"

#include <malloc.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cstdlib>

namespace {

using namespace served_connections;

/// Rooms in which OpenSSL puts a record that the server is to send. The clients' are longer, and for the
/// messages of a handshake it makes some of 4096 bytes.
struct sending_rooms {
    int now, most;
};
sending_rooms rooms_to_send;

int counts_as_one(void *memory)
{
    const std::size_t size = memory == nullptr ? 0 : malloc_usable_size(memory);
    return size > http_tls_sent_record + 64 && size < http_tls_sent_record + 1024 ? 1 : 0;
}

void *counted(void *memory)
{
    rooms_to_send.now += counts_as_one(memory);
    rooms_to_send.most = std::max(rooms_to_send.most, rooms_to_send.now);
    return memory;
}

void *counting_malloc(std::size_t size, const char * /*file*/, int /*line*/)
{
    return counted(std::malloc(size));
}

void counting_free(void *memory, const char * /*file*/, int /*line*/)
{
    rooms_to_send.now -= counts_as_one(memory);
    std::free(memory);
}

void *counting_realloc(void *old, std::size_t size, const char * /*file*/, int /*line*/)
{
    rooms_to_send.now -= counts_as_one(old);
    return counted(std::realloc(old, size));
}

/// Before OpenSSL takes any memory.
[[gnu::constructor(101)]] void count_rooms_to_send()
{
    CRYPTO_set_mem_functions(counting_malloc, counting_realloc, counting_free);
}

class TlsStream : public Connections {
  protected:
    void serve_tuned()
    {
        serve();
        http_tls_tune(htp->ssl_ctx);
    }
};

/// A TLS record that continues a greeting of 131,392 bytes, which the library would take.
string greeting_record(bool first, std::size_t size)
{
    string record{"\x16\x03\x01"};
    record += {static_cast<char>(size >> 8U), static_cast<char>(size & 0xffU)};
    if (first) {
        record += string{"\x01\x02\x01\x40", 4};
        size -= 4;
    }
    return record + string(size, '\0');
}

TEST_F(TlsStream, AGreetingOf16KibibytesIsWaitedForAndALongerOneEndsTheConnection)
{
    serve();
    const auto peer = client();
    ASSERT_TRUE(reaches(1));
    const string most = greeting_record(true, 16378); // with its head a byte less than 16 KiB
    ASSERT_EQ(write(peer->fd(), most.data(), most.size()), 16383);
    turn_for(loop, 20ms);
    EXPECT_EQ(http_connections_count(), 1U);
    const string more = greeting_record(false, 100);
    ASSERT_EQ(write(peer->fd(), more.data(), more.size()), 105);
    EXPECT_TRUE(reaches(0));
    EXPECT_EQ(log.count("receive - too much before the end of the handshake"), 1);
}

TEST_F(TlsStream, ADrippedGreetingGainsNoTime)
{
    serve(quick());
    const auto peer = client();
    ASSERT_TRUE(reaches(1));
    const string greeting = greeting_record(true, 16378);
    const auto begin = std::chrono::steady_clock::now();
    std::size_t sent = 0;
    while (http_connections_count() == 1 && sent < greeting.size() &&
           std::chrono::steady_clock::now() - begin < 5s) {
        ASSERT_EQ(write(peer->fd(), &greeting[sent++], 1), 1);
        turn_for(loop, 5ms);
    }
    EXPECT_EQ(http_connections_count(), 0U);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
}

TEST_F(TlsStream, WhatComesAfterTheHandshakeIsNoPartOfIt)
{
    serve();
    const auto peer = connected();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(peer->ask(post("Content-Length: 8192\r\n", string(8192, 'a'))).status, 200);
    }
}

TEST_F(TlsStream, PartsOfRecordsAreHeldOnlyUpToTheShareOfTheirAddress)
{
    http_connection_limits limits;
    limits.held_of_address = 48 * 1024;
    serve(limits);
    const string part = string{"\x17\x03\x03\x40\x00", 5} + string(16000, '\0');
    const auto other = connected("127.0.0.2");
    ASSERT_EQ(write(other->fd(), part.data(), part.size()), 16005);
    std::vector<std::unique_ptr<https_client>> greedy;
    for (int i = 0; i < 6; ++i) {
        greedy.push_back(connected());
        ASSERT_EQ(write(greedy.back()->fd(), part.data(), part.size()), 16005);
        turn_for(loop, 5ms);
    }
    EXPECT_EQ(http_connections_count(), 1U + 3U);
    EXPECT_EQ(log.count("WARN velm_http_server - keep_within_memory - closing a connection"), 3);
    EXPECT_FALSE(other->has_ended());
}

TEST_F(TlsStream, RecordsWithoutDataEndTheConnectionAfterThirtyTwoInARow)
{
    serve();
    const auto peer = connected();
    const auto update_keys = [&peer](int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(SSL_key_update(peer->tls(), SSL_KEY_UPDATE_NOT_REQUESTED), 1);
            ASSERT_EQ(SSL_do_handshake(peer->tls()), 1);
        }
    };
    for (int round = 0; round < 2; ++round) { // a request in between begins the count anew
        update_keys(32);
        EXPECT_EQ(peer->ask(get).status, 200);
    }
    update_keys(33);
    EXPECT_TRUE(reaches(0));
    EXPECT_EQ(log.count("WARN velm_http_server - open_record - too many TLS records without data: "
                        "127.0.0.1"),
              1);
}

TEST_F(TlsStream, NewKeysBeforeDataLeaveNoRoomBehindWhileOthersAreRead)
{
    serve_tuned();
    std::vector<std::unique_ptr<https_client>> peers;
    for (int i = 0; i < 8; ++i) {
        peers.push_back(connected());
        ASSERT_EQ(peers.back()->ask(get).status, 200);
    }
    const int others = rooms_to_send.now;
    rooms_to_send.most = others;
    for (const auto &peer : peers) {
        for (int i = 0; i < 10; ++i) {
            ASSERT_EQ(SSL_key_update(peer->tls(), SSL_KEY_UPDATE_NOT_REQUESTED), 1);
            ASSERT_EQ(SSL_do_handshake(peer->tls()), 1);
        }
        peer->send("G");
    }
    turn_for(loop, 50ms);
    EXPECT_GT(rooms_to_send.most, others); // new keys take one, so the count means something
    EXPECT_LE(rooms_to_send.most, others + 1);
    for (const auto &peer : peers) {
        EXPECT_EQ(peer->ask(get + 1).status, 200);
    }
}

TEST_F(TlsStream, AFloodOfRecordsLeavesTurnsToTheOthers)
{
    serve();
    const auto flood = connected();
    const auto other = connected();
    for (int i = 0; i < 200; ++i) {
        flood->send("x");
    }
    other->send(get);
    turn_for(loop, 0ms);
    int turns = 0;
    while (other->receive().status != 200 && ++turns < 3) {
    }
    EXPECT_LT(turns, 3);
    flood->send(get + 1);
    EXPECT_TRUE(turn_until(loop, [] { return seen.size() == 1; })); // and all is read in the end
}

TEST_F(TlsStream, AHandshakeThatFailsIsToldWithItsReasonAndAddress)
{
    serve_tuned();
    const auto peer = client();
    ASSERT_EQ(SSL_set1_groups_list(peer->tls(), "P-521"), 1);
    EXPECT_FALSE(peer->handshake());
    EXPECT_TRUE(reaches(0));
    EXPECT_EQ(log.count("WARN velm_http_server - log_failed_handshake - TLS handshake failed, "),
              1);
}

} // namespace
