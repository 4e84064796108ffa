#include "http/stream.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "test_certificates.h"
#include "test_server.h"

namespace {

/// A plain stream and the other side of its socket.
class HttpClientStream : public testing::Test {
  protected:
    HttpClientStream()
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()),
                  0);
        peer.reset(ends[0]);
        stream = std::make_unique<http_client_stream>(unique_fd{ends[1]}, nullptr);
        stream->begin_turn();
    }

    /// What one turn takes of all that the peer has to say.
    std::size_t read_a_turn()
    {
        std::vector<char> room(16384);
        const std::string more(room.size(), 'x');
        std::size_t total = 0;
        count = 0;
        stream->begin_turn();
        do {
            total += count;
            while (send(peer.get(), more.data(), more.size(), MSG_DONTWAIT) > 0) {
            }
        } while (stream->read(room, &count) == http_client_io::done && total < 1'000'000);
        return total;
    }

    unique_fd peer;
    std::unique_ptr<http_client_stream> stream;
    std::array<char, 100> bytes{};
    std::size_t count = 0;
};

TEST_F(HttpClientStream, ATurnTakes64Kibibytes)
{
    for (int turn = 0; turn < 3; ++turn) {
        EXPECT_EQ(read_a_turn(), 65536U);
    }
}

TEST_F(HttpClientStream, WithNothingToReadItWaits)
{
    EXPECT_EQ(stream->shake_hands(), http_client_io::done);
    EXPECT_EQ(stream->read(bytes, &count), http_client_io::wants_to_read);
}

TEST_F(HttpClientStream, ReadsWhatWasSentAndThenTheEnd)
{
    ASSERT_EQ(send(peer.get(), "abc", 3, 0), 3);
    peer.reset();
    EXPECT_EQ(stream->read(bytes, &count), http_client_io::done);
    EXPECT_EQ((std::string{bytes.data(), count}), "abc");
    EXPECT_EQ(stream->read(bytes, &count), http_client_io::ended);
}

TEST_F(HttpClientStream, WritesUntilThePeerTakesNoMore)
{
    const std::string text(100'000, 'x');
    http_client_io result = http_client_io::done;
    std::size_t total = 0;
    while ((result = stream->write(text, &count)) == http_client_io::done) {
        total += count;
    }
    EXPECT_EQ(result, http_client_io::wants_to_write);
    EXPECT_GT(total, 0U);
}

TEST_F(HttpClientStream, WritingToNobodyFailsWithTheSystemsReason)
{
    peer.reset();
    EXPECT_EQ(stream->write("x", &count), http_client_io::failed);
    EXPECT_EQ(stream->socket_error(), EPIPE);
}

/// A TLS stream over TCP and its server, which have shaken hands.
class HttpClientTlsStream : public testing::TestWithParam<int> {
  protected:
    HttpClientTlsStream()
    {
        connect_both();
        serving.reset(SSL_new(server_context.get()));
        SSL_set_fd(serving.get(), server.get());
        SSL_set_accept_state(serving.get());
        SSL_set_num_tickets(serving.get(), 0); // so that the client has nothing to acknowledge
        SSL_CTX_set_max_proto_version(client_context.get(), GetParam());
        stream = std::make_unique<http_client_stream>(std::move(client),
                                                      ssl_ptr{SSL_new(client_context.get())});
        for (int step = 0; step < 1000 && !are_ready(); ++step) {
        }
    }

    /// Both without waiting.
    void connect_both()
    {
        const unique_fd listener{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto *const any = reinterpret_cast<sockaddr *>(&address);
        EXPECT_EQ(bind(listener.get(), any, size), 0);
        EXPECT_EQ(listen(listener.get(), 1), 0);
        EXPECT_EQ(getsockname(listener.get(), any, &size), 0);
        client.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(connect(client.get(), any, size), 0);
        server.reset(accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        EXPECT_EQ(fcntl(client.get(), F_SETFL, O_NONBLOCK), 0);
    }

    bool are_ready()
    {
        stream->begin_turn();
        const bool client_is = stream->shake_hands() == http_client_io::done;
        return SSL_do_handshake(serving.get()) == 1 && client_is;
    }

    /// What the server reads, once something is there; 0: the end.
    int read_at_server()
    {
        std::array<char, 100> room{};
        for (int step = 0; step < 1'000'000; ++step) {
            const int length = SSL_read(serving.get(), room.data(), static_cast<int>(room.size()));
            const int error = SSL_get_error(serving.get(), length);
            if (length > 0 || error != SSL_ERROR_WANT_READ) {
                return error == SSL_ERROR_ZERO_RETURN ? 0 : length;
            }
        }
        return -1;
    }

    /// The packets that have come to the server, by the kernel's count.
    [[nodiscard]] unsigned packets() const
    {
        tcp_info info{};
        socklen_t size = sizeof info;
        EXPECT_EQ(getsockopt(server.get(), IPPROTO_TCP, TCP_INFO, &info, &size), 0);
        return info.tcpi_segs_in;
    }

    ssl_ctx_ptr server_context = make_server_context(make_test_certificate({}));
    ssl_ctx_ptr client_context{SSL_CTX_new(TLS_client_method())};
    unique_fd client;
    unique_fd server;
    ssl_ptr serving;
    std::unique_ptr<http_client_stream> stream;
};

TEST_P(HttpClientTlsStream, SaysGoodbyeInThePacketOfItsEnd)
{
    std::size_t count = 0;
    ASSERT_EQ(stream->write("x", &count), http_client_io::done);
    ASSERT_EQ(read_at_server(), 1);
    const unsigned before = packets();
    stream.reset();
    EXPECT_EQ(read_at_server(), 0) << "a goodbye";
    char byte = 0;
    EXPECT_EQ(recv(server.get(), &byte, 1, MSG_DONTWAIT), 0) << "the end came with it";
    EXPECT_EQ(packets() - before, 1U);
}

INSTANTIATE_TEST_SUITE_P(Versions, HttpClientTlsStream,
                         testing::Values(TLS1_2_VERSION, TLS1_3_VERSION), [](const auto &row) {
                             return row.param == TLS1_2_VERSION ? "Tls12" : "Tls13";
                         });

} // namespace
