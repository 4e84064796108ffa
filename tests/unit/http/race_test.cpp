#include "http/race.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

using std::chrono::milliseconds;

http_client_address address_of(const std::string &text)
{
    http_client_address address;
    auto *const ipv4 = reinterpret_cast<sockaddr_in *>(&address.bytes);
    auto *const ipv6 = reinterpret_cast<sockaddr_in6 *>(&address.bytes);
    if (inet_pton(AF_INET, text.c_str(), &ipv4->sin_addr) == 1) {
        ipv4->sin_family = AF_INET;
        address.size = sizeof *ipv4;
    } else if (inet_pton(AF_INET6, text.c_str(), &ipv6->sin6_addr) == 1) {
        ipv6->sin6_family = AF_INET6;
        address.size = sizeof *ipv6;
    }
    return address;
}

/// Listens on one of the many addresses of loopback; a full one answers nobody.
struct listener {
    listener(const char *text, std::uint16_t wanted_port, bool full = false)
        : fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)}
    {
        http_client_address address = address_of(text);
        auto *const name = reinterpret_cast<sockaddr_in *>(&address.bytes);
        name->sin_port = htons(wanted_port);
        constexpr int on = 1;
        setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(name), address.size), 0);
        EXPECT_EQ(listen(fd.get(), full ? 0 : 16), 0);
        getsockname(fd.get(), reinterpret_cast<sockaddr *>(name), &address.size);
        port = ntohs(name->sin_port);
        for (int i = 0; full && i < 4; ++i) {
            waiting.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            connect(waiting.back().get(), reinterpret_cast<sockaddr *>(name), address.size);
        }
    }

    unique_fd fd;
    std::uint16_t port = 0;
    std::vector<unique_fd> waiting;
};

class HttpClientRace : public testing::Test {
  protected:
    static std::unique_ptr<http_client_stream> open_plain(unique_fd socket, void *)
    {
        return std::make_unique<http_client_stream>(std::move(socket), nullptr);
    }

    static void ended(std::unique_ptr<http_client_stream> stream, http_client_io handshake,
                      int error, void *argument)
    {
        auto *const self = static_cast<HttpClientRace *>(argument);
        ++self->calls;
        self->stream = std::move(stream);
        self->handshake = handshake;
        self->error = error;
        self->took = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() -
                                                              self->begun);
    }

    void run(const std::vector<std::string> &texts, std::uint16_t port,
             http_client_race_opener opener = open_plain)
    {
        std::vector<http_client_address> addresses;
        for (const std::string &text : texts) {
            addresses.push_back(address_of(text));
        }
        begun = std::chrono::steady_clock::now();
        race.start(base.get(), addresses, port, opener, ended, this);
        const timeval deadline{5, 0};
        event_base_loopexit(base.get(), &deadline);
        while (calls == 0 && event_base_got_exit(base.get()) == 0) {
            event_base_loop(base.get(), EVLOOP_ONCE);
        }
        EXPECT_EQ(calls, 1);
    }

    [[nodiscard]] std::string reached() const
    {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        std::array<char, INET_ADDRSTRLEN> text{};
        getpeername(stream->socket(), reinterpret_cast<sockaddr *>(&peer), &size);
        inet_ntop(AF_INET, &peer.sin_addr, text.data(), text.size());
        return text.data();
    }

    event_base_ptr base{event_base_new()};
    int calls = 0;
    std::unique_ptr<http_client_stream> stream;
    http_client_io handshake = http_client_io::failed;
    int error = 0;
    std::chrono::steady_clock::time_point begun;
    milliseconds took{};
    http_client_race race;
};

TEST_F(HttpClientRace, TheFirstAddressThatAnswersAtOnceIsTaken)
{
    const listener first{"127.0.0.1", 0};
    const listener second{"127.0.0.2", first.port};
    run({"127.0.0.1", "127.0.0.2"}, first.port);
    EXPECT_EQ(reached(), "127.0.0.1");
    EXPECT_LT(took, milliseconds{250});
}

TEST_F(HttpClientRace, ASilentAddressHas300MillisecondsBeforeTheNextIsTried)
{
    const listener silent{"127.0.0.1", 0, true};
    const listener second{"127.0.0.2", silent.port};
    run({"127.0.0.1", "127.0.0.2"}, silent.port);
    EXPECT_EQ(reached(), "127.0.0.2");
    EXPECT_GE(took, milliseconds{290});
    EXPECT_LT(took, milliseconds{900});
}

TEST_F(HttpClientRace, EverySilentAddressCostsTheSame)
{
    const listener answering{"127.0.0.9", 0};
    const listener a{"127.0.0.1", answering.port, true};
    const listener b{"127.0.0.2", answering.port, true};
    const listener c{"127.0.0.3", answering.port, true};
    run({"127.0.0.1", "127.0.0.2", "127.0.0.3", "127.0.0.9"}, answering.port);
    EXPECT_EQ(reached(), "127.0.0.9");
    EXPECT_GE(took, milliseconds{890});
}

TEST_F(HttpClientRace, ARefusedAddressGivesWayAtOnce)
{
    const listener second{"127.0.0.2", 0};
    run({"127.0.0.1", "127.0.0.2"}, second.port);
    EXPECT_EQ(reached(), "127.0.0.2");
    EXPECT_LT(took, milliseconds{250});
}

TEST_F(HttpClientRace, AnAddressWithoutARouteGivesWayAtOnce)
{
    const listener second{"127.0.0.2", 0};
    run({"255.255.255.255", "ff02::1", "127.0.0.2"}, second.port);
    EXPECT_EQ(reached(), "127.0.0.2");
    EXPECT_LT(took, milliseconds{250});
}

TEST_F(HttpClientRace, ARefusalWhileASilentOneGoesOnWaitsForThat)
{
    listener silent{"127.0.0.1", 0, true};
    std::vector<http_client_address> addresses{address_of("127.0.0.1"), address_of("127.0.0.2")};
    race.start(base.get(), addresses, silent.port, open_plain, ended, this);
    const timeval moment{0, 600'000};
    event_base_loopexit(base.get(), &moment);
    event_base_dispatch(base.get());
    EXPECT_EQ(calls, 0) << "the second was refused, the first may still answer";
}

TEST_F(HttpClientRace, WithNobodyThereTheLastErrorIsTold)
{
    run({"127.0.0.1", "127.0.0.2"}, 1);
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(error, ECONNREFUSED);
}

TEST_F(HttpClientRace, WithoutAnAddressItIsLost)
{
    run({}, 1);
    EXPECT_EQ(stream, nullptr);
}

TEST_F(HttpClientRace, ItsSocketsAreClosedWithIt)
{
    const auto open_descriptors = [] {
        return std::distance(std::filesystem::directory_iterator{"/proc/self/fd"},
                             std::filesystem::directory_iterator{});
    };
    const listener silent{"127.0.0.1", 0, true};
    const listener silent_too{"127.0.0.2", silent.port, true};
    const auto before = open_descriptors();
    {
        http_client_race abandoned;
        abandoned.start(base.get(), {address_of("127.0.0.1"), address_of("127.0.0.2")}, silent.port,
                        open_plain, ended, this);
        const timeval moment{0, 400'000};
        event_base_loopexit(base.get(), &moment);
        event_base_dispatch(base.get());
        EXPECT_EQ(open_descriptors(), before + 2);
    }
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(calls, 0);
}

/// What a server does with the greeting of a client.
enum class conduct { silent, closes, resets, refuses, refuses_late };

/// Takes the connections of a listener on the test's own loop.
struct greeted_server {
    greeted_server(event_base *wanted_base, const char *text, std::uint16_t wanted_port,
                   conduct wanted)
        : base{wanted_base}, door{text, wanted_port}, does{wanted},
          on_connection{event_new(base, door.fd.get(), EV_READ | EV_PERSIST, take, this)}
    {
        event_add(on_connection.get(), nullptr);
    }

    static void take(evutil_socket_t fd, short, void *argument)
    {
        auto *const self = static_cast<greeted_server *>(argument);
        ++self->connections;
        self->client.reset(accept(fd, nullptr, nullptr));
        self->on_greeting.reset(event_new(self->base, self->client.get(), EV_READ, greeted, self));
        event_add(self->on_greeting.get(), nullptr);
    }

    static void greeted(evutil_socket_t, short, void *argument)
    {
        auto *const self = static_cast<greeted_server *>(argument);
        std::array<char, 4096> greeting{};
        constexpr timeval late{2, 300'000};
        switch (self->does) {
        case conduct::silent:
            return;
        case conduct::closes:
            while (recv(self->client.get(), greeting.data(), greeting.size(), MSG_DONTWAIT) > 0) {
            }
            self->client.reset();
            return;
        case conduct::resets: // with bytes unread
            self->client.reset();
            return;
        case conduct::refuses:
            refuse(0, 0, self);
            return;
        case conduct::refuses_late:
            self->on_late.reset(evtimer_new(self->base, refuse, self));
            evtimer_add(self->on_late.get(), &late);
            return;
        }
    }

    static void refuse(evutil_socket_t, short, void *argument)
    {
        constexpr std::array<unsigned char, 7> handshake_failure{21, 3, 3, 0, 2, 2, 40};
        send(static_cast<greeted_server *>(argument)->client.get(), handshake_failure.data(),
             handshake_failure.size(), MSG_NOSIGNAL);
    }

    event_base *base;
    listener door;
    conduct does;
    unique_fd client;
    event_ptr on_connection;
    event_ptr on_greeting;
    event_ptr on_late;
    int connections = 0;
};

class HttpClientTlsRace : public HttpClientRace {
  protected:
    HttpClientTlsRace()
    {
        std::signal(SIGPIPE, SIG_IGN); // as in the daemon
    }

    static std::unique_ptr<http_client_stream> open_tls(unique_fd socket, void *argument)
    {
        const auto *const self = static_cast<HttpClientTlsRace *>(argument);
        return std::make_unique<http_client_stream>(std::move(socket),
                                                    ssl_ptr{SSL_new(self->context.get())});
    }

    ssl_ctx_ptr context{SSL_CTX_new(TLS_method())};
};

class HttpClientTlsRaceEnd : public HttpClientTlsRace,
                             public testing::WithParamInterface<conduct> {};
TEST_P(HttpClientTlsRaceEnd, WithoutAnAnswerGivesWayAtOnce)
{
    const greeted_server first{base.get(), "127.0.0.1", 0, GetParam()};
    const std::uint16_t port = first.door.port;
    const greeted_server second{base.get(), "127.0.0.2", port, conduct::refuses};
    run({"127.0.0.1", "127.0.0.2"}, port, open_tls);
    EXPECT_EQ(reached(), "127.0.0.2");
    EXPECT_LT(took, milliseconds{1000});
}
INSTANTIATE_TEST_SUITE_P(Ends, HttpClientTlsRaceEnd,
                         testing::Values(conduct::closes, conduct::resets), [](const auto &row) {
                             return row.param == conduct::closes ? "Closed" : "Reset";
                         });

TEST_F(HttpClientTlsRace, ASilentServerHasTwoSecondsBeforeTheNextIsTried)
{
    const greeted_server first{base.get(), "127.0.0.1", 0, conduct::silent};
    const std::uint16_t port = first.door.port;
    const greeted_server second{base.get(), "127.0.0.2", port, conduct::refuses};
    run({"127.0.0.1", "127.0.0.2"}, port, open_tls);
    EXPECT_EQ(reached(), "127.0.0.2");
    EXPECT_GE(took, milliseconds{1950});
    EXPECT_LT(took, milliseconds{3500});
}

TEST_F(HttpClientTlsRace, AServerThatWasSilentMayStillAnswerFirst)
{
    const greeted_server first{base.get(), "127.0.0.1", 0, conduct::refuses_late};
    const std::uint16_t port = first.door.port;
    const greeted_server second{base.get(), "127.0.0.2", port, conduct::silent};
    run({"127.0.0.1", "127.0.0.2"}, port, open_tls);
    EXPECT_EQ(reached(), "127.0.0.1");
    EXPECT_EQ(second.connections, 1);
}

TEST_F(HttpClientTlsRace, ARefusalIsAnAnswer)
{
    const greeted_server first{base.get(), "127.0.0.1", 0, conduct::refuses};
    const std::uint16_t port = first.door.port;
    const greeted_server second{base.get(), "127.0.0.2", port, conduct::refuses};
    run({"127.0.0.1", "127.0.0.2"}, port, open_tls);
    EXPECT_EQ(reached(), "127.0.0.1");
    EXPECT_EQ(handshake, http_client_io::failed);
    EXPECT_TRUE(stream->has_heard());
    EXPECT_EQ(second.connections, 0);
}

TEST_F(HttpClientTlsRace, WhenNobodyAnswersTheLastThatEndedSaysWhy)
{
    const greeted_server first{base.get(), "127.0.0.1", 0, conduct::closes};
    const std::uint16_t port = first.door.port;
    const greeted_server second{base.get(), "127.0.0.2", port, conduct::resets};
    run({"127.0.0.1", "127.0.0.2", "127.0.0.3"}, port, open_tls); // nobody is at the third
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(handshake, http_client_io::failed);
    EXPECT_EQ(stream->socket_error(), ECONNRESET);
    EXPECT_FALSE(stream->has_heard());
}

TEST_F(HttpClientTlsRace, AnAddressThatGaveWayToAConnectionIsTriedAgainAfterThat)
{
    const listener slow{"127.0.0.1", 0, true};
    const greeted_server second{base.get(), "127.0.0.2", slow.port, conduct::closes};
    race.start(base.get(), {address_of("127.0.0.1"), address_of("127.0.0.2")}, slow.port, open_tls,
               ended, this);
    const timeval moment{0, 900'000};
    event_base_loopexit(base.get(), &moment);
    event_base_dispatch(base.get());
    EXPECT_EQ(second.connections, 1);
    EXPECT_EQ(calls, 0) << "the slow one may still answer";
}

} // namespace
