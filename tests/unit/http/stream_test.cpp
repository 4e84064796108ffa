#include "http/stream.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

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

} // namespace
