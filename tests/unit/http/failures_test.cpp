
#include <algorithm>
#include <cstring>
#include <list>

#include "fakes/no_descriptors.h"

#include "fixture.h"

namespace {

constexpr std::size_t mebibyte = 1024 * 1024;
constexpr std::size_t largest = 64 * 1024;

double seconds_of(const std::function<void()> &work)
{
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>{std::chrono::steady_clock::now() - begin}.count();
}

/// A port of loopback that nobody accepts from, with the shortest queue.
unique_fd listen_on_loopback(sockaddr_in &address)
{
    unique_fd listener{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&address), length), 0);
    EXPECT_EQ(listen(listener.get(), 0), 0);
    EXPECT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr *>(&address), &length), 0);
    return listener;
}

/// Takes one connection and resets it as soon as something arrives.
struct resetting_server {
    event_base *base;
    unique_fd listener;
    unique_fd taken;
    event_ptr on_connection;
    event_ptr on_bytes;

    static void accept_one(evutil_socket_t fd, short, void *argument)
    {
        auto *self = static_cast<resetting_server *>(argument);
        self->taken = unique_fd{accept(fd, nullptr, nullptr)};
        self->on_bytes.reset(event_new(self->base, self->taken.get(), EV_READ, reset_it, self));
        event_add(self->on_bytes.get(), nullptr);
    }

    static void reset_it(evutil_socket_t, short, void *argument)
    {
        static_cast<resetting_server *>(argument)->taken.reset(); // with bytes unread: a reset
    }

    void start()
    {
        on_connection.reset(event_new(base, listener.get(), EV_READ, accept_one, this));
        event_add(on_connection.get(), nullptr);
    }
};

class HttpClientFailures : public http_client_fixture {
  protected:
    std::string uri() const
    {
        return "http://cloud.example.test:" + server.port() + "/";
    }

    /// The request ends after its second with -1 and no body, and the handler is not called again.
    void expect_time_out(const http_client_request_data &data)
    {
        test_outcome outcome;
        const double took = seconds_of([&] { outcome = fetch(HTTP_CLIENT_GET, data); });
        EXPECT_EQ(outcome.code, -1);
        EXPECT_FALSE(outcome.has_body);
        EXPECT_FALSE(outcome.has_headers);
        EXPECT_GE(took, 0.9);
        EXPECT_LT(took, 2.5);
        EXPECT_TRUE(log.contains("WARN http_client - http_request_error - ctx 0x"));
        EXPECT_TRUE(log.contains(", timeout on req: " + data.uri));
        EXPECT_TRUE(log.contains(", request failed: " + data.uri));
        // libevent's own time-outs lie a second behind ours: still one call.
        run_until([] { return false; }, 1500);
        EXPECT_EQ(outcome.calls, 1);
    }

    test_server server{base};
};

TEST_F(HttpClientFailures, ARefusedConnectionGivesCodeZero)
{
    const test_outcome outcome = fetch(HTTP_CLIENT_GET, request("http://127.0.0.1:1/"));
    EXPECT_EQ(outcome.code, 0);
    EXPECT_FALSE(outcome.has_body);
    EXPECT_EQ(outcome.calls, 1);
}

TEST_F(HttpClientFailures, ARefusedTlsConnectionGivesCodeZero)
{
    write_pem(path("ca.pem"), make_test_ca());
    ASSERT_EQ(http_client_setup_ssl(path("ca.pem").c_str()), 0);
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, request("https://127.0.0.1:1/")).code, 0);
}

TEST_F(HttpClientFailures, AConnectionThatFailsAtOnceStillTellsItAfterTheCall)
{
    // No route leads there: the system says so before the call that connects has returned.
    const test_outcome outcome = fetch(HTTP_CLIENT_GET, request("http://255.255.255.255:1/"));
    EXPECT_LE(outcome.code, 0);
    EXPECT_EQ(outcome.calls, 1);
}

TEST_F(HttpClientFailures, WithoutDescriptorsARequestFailsAndTheNextOneSucceeds)
{
    const unique_fd first_free{dup(0)};
    const http_client_request_data data = request(uri());
    test_outcome outcome;
    int started = 1;
    {
        const no_descriptors none{static_cast<rlim_t>(first_free.get())};
        started = http_request_internal(HTTP_CLIENT_GET, data, test_outcome::handler, &outcome);
    }
    EXPECT_EQ(started, 0);
    EXPECT_TRUE(run_until([&outcome] { return outcome.calls > 0; }));
    EXPECT_LE(outcome.code, 0);
    EXPECT_EQ(server.connections, 0);
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, request(uri())).code, 200);
}

TEST_F(HttpClientFailures, WithoutATimeOutOfItsOwnARequestHasTheDefaultOne)
{
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, request(uri(), 0)).code, 200);
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, request(uri(), -1)).code, 200);
}

TEST_F(HttpClientFailures, AnAnswerThatNeverComesEndsAtTheTimeOut)
{
    server.on_request = [](bufferevent *) {};
    expect_time_out(request(uri(), 1));
}

class HttpClientScheme : public HttpClientFailures,
                         public testing::WithParamInterface<const char *> {};
TEST_P(HttpClientScheme, AConnectionThatIsNeverMadeEndsAtTheTimeOut)
{
    write_pem(path("ca.pem"), make_test_ca());
    ASSERT_EQ(http_client_setup_ssl(path("ca.pem").c_str()), 0);
    // A full queue of a socket that nobody accepts from: the system drops what comes on top.
    sockaddr_in address{};
    const unique_fd listener = listen_on_loopback(address);
    std::vector<unique_fd> waiting;
    for (int i = 0; i < 4; ++i) {
        waiting.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        connect(waiting.back().get(), reinterpret_cast<sockaddr *>(&address), sizeof address);
    }
    expect_time_out(request(std::string{GetParam()} +
                                "://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/",
                            1));
}
INSTANTIATE_TEST_SUITE_P(Schemes, HttpClientScheme, testing::Values("http", "https"),
                         [](const auto &row) { return std::string{row.param}; });

TEST_F(HttpClientFailures, AHandshakeThatStallsEndsAtTheTimeOut)
{
    write_pem(path("ca.pem"), make_test_ca());
    ASSERT_EQ(http_client_setup_ssl(path("ca.pem").c_str()), 0);
    // The server is a plain one: it waits for the end of a head that never comes.
    expect_time_out(request("https://cloud.example.test:" + server.port() + "/", 1));
    EXPECT_EQ(server.connections, 1);
}

TEST_F(HttpClientFailures, AResetDuringTheHandshakeIsLoggedInTheSystemsWords)
{
    write_pem(path("ca.pem"), make_test_ca());
    ASSERT_EQ(http_client_setup_ssl(path("ca.pem").c_str()), 0);
    sockaddr_in address{};
    resetting_server peer{base, listen_on_loopback(address), {}, {}, {}};
    peer.start();
    const std::string port = std::to_string(ntohs(address.sin_port));
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, request("https://127.0.0.1:" + port + "/")).code, -2);
    EXPECT_TRUE(log.contains("WARN http_client - http_client_connection_log_tls_errors - "
                             "127.0.0.1: Connection reset by peer"));
}

/// A server that begins an answer and then sends a byte ten times a second.
struct dripping_server {
    dripping_server(event_base *base, std::string head) : server{base}
    {
        server.on_request = [this, base, head](bufferevent *bufev) {
            peer = bufev;
            bufferevent_write(bufev, head.data(), head.size());
            drip.reset(event_new(base, -1, EV_PERSIST, next_drop, this));
            const timeval interval{0, 100000};
            event_add(drip.get(), &interval);
        };
        outcome.inside = [this] { drip.reset(); };
    }

    static void next_drop(evutil_socket_t, short, void *context)
    {
        bufferevent_write(static_cast<dripping_server *>(context)->peer, "x", 1);
    }

    bufferevent *peer = nullptr;
    event_ptr drip;
    test_outcome outcome;
    test_server server;
};

TEST_F(HttpClientFailures, ADrippingServerEndsAtTheTimeOutExactlyOnce)
{
    std::list<dripping_server> servers; // asked together, since each takes its second
    for (const char *head :
         {"HTTP/1.1 200 OK\r\nX-Slow: ", "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n",
          "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3e8\r\n"}) {
        servers.emplace_back(base, head);
    }
    const double took = seconds_of([&] {
        for (dripping_server &one : servers) {
            const std::string uri = "http://cloud.example.test:" + one.server.port() + "/";
            ASSERT_EQ(http_request_internal(HTTP_CLIENT_GET, request(uri, 1), test_outcome::handler,
                                            &one.outcome),
                      0);
        }
        EXPECT_TRUE(run_until([&servers] {
            return std::ranges::all_of(servers, [](auto &one) { return one.outcome.calls > 0; });
        }));
    });
    EXPECT_LT(took, 2.0);
    run_until([] { return false; }, 1500);
    for (const dripping_server &one : servers) {
        EXPECT_EQ(one.outcome.code, -1);
        EXPECT_FALSE(one.outcome.has_body);
        EXPECT_EQ(one.outcome.calls, 1);
    }
}

TEST_F(HttpClientFailures, ABodyOf64KibibytesIsServed)
{
    server.reply = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(largest) + "\r\n\r\n" +
                   std::string(largest, 'x');
    const test_outcome outcome = fetch(HTTP_CLIENT_GET, request(uri()));
    EXPECT_EQ(outcome.code, 200);
    EXPECT_EQ(outcome.body.size(), largest);
}

TEST_F(HttpClientFailures, AChunkOf64KibibytesIsServed)
{
    server.reply = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n10000\r\n" +
                   std::string(largest, 'x') + "\r\n0\r\n\r\n";
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, request(uri())).body.size(), largest);
}

TEST_F(HttpClientFailures, AnAnswerThatComesBeforeTheRequestIsTaken)
{
    server.greeting = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nearly";
    server.on_request = [](bufferevent *) {};
    http_client_request_data data = request(uri());
    data.post_data = std::string(mebibyte, 'x');
    const test_outcome outcome = fetch(HTTP_CLIENT_POST, data);
    EXPECT_EQ(outcome.code, 200);
    EXPECT_EQ(outcome.body, "early");
    EXPECT_EQ(outcome.calls, 1);
}

struct endless_case {
    const char *name;
    std::string head;  // what it begins with
    std::string again; // what it goes on with
};
class HttpClientEndless : public HttpClientFailures,
                          public testing::WithParamInterface<endless_case> {
  protected:
    std::size_t left = 0; // of what the server had to say
};

TEST_P(HttpClientEndless, AnswerIsNotReadForLongerThanABodyMayBe)
{
    constexpr std::size_t sent = 32 * mebibyte;
    server.on_request = [this](bufferevent *bufev) {
        bufferevent_write(bufev, GetParam().head.data(), GetParam().head.size());
        constexpr int least = 65536; // the system holds little of what the client does not take
        setsockopt(bufferevent_getfd(bufev), SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
        std::string piece;
        while (piece.size() < mebibyte) {
            piece += GetParam().again;
        }
        while (evbuffer_get_length(bufferevent_get_output(bufev)) < sent) {
            bufferevent_write(bufev, piece.data(), piece.size());
        }
        evbuffer_add_cb(
            bufferevent_get_output(bufev),
            [](evbuffer *output, const evbuffer_cb_info *, void *argument) {
                *static_cast<std::size_t *>(argument) = evbuffer_get_length(output);
            },
            &left);
    };
    const test_outcome outcome = fetch(HTTP_CLIENT_GET, request(uri(), 1));
    EXPECT_LT(outcome.code, 0);
    EXPECT_EQ(outcome.calls, 1);
    // Beside what the client took, the system's buffers of the connection hold some.
    EXPECT_GT(left, sent / 2);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, HttpClientEndless,
    testing::Values(endless_case{"StatusLine", "HTTP/1.1 200 ", "x"},
                    endless_case{"Headers", "HTTP/1.1 200 OK\r\n", "X: y\r\n"},
                    endless_case{"Body", "HTTP/1.1 200 OK\r\n\r\n", "x"},
                    endless_case{"ChunkSize",
                                 "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", "0"},
                    endless_case{"Chunks", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
                                 "4\r\nwxyz\r\n"}),
    [](const auto &row) { return std::string{row.param.name}; });

struct broken_case {
    const char *name;
    std::string reply;
    int code;
    bool closes;
};
class HttpClientAnswer : public HttpClientFailures,
                         public testing::WithParamInterface<broken_case> {};

TEST_P(HttpClientAnswer, ThatIsNoneIsAnErrorWithoutBody)
{
    server.reply = GetParam().reply;
    server.close_after_reply = GetParam().closes;
    const test_outcome outcome = fetch(HTTP_CLIENT_GET, request(uri()));
    EXPECT_EQ(outcome.code, GetParam().code);
    EXPECT_FALSE(outcome.has_body);
    EXPECT_FALSE(outcome.has_headers);
    EXPECT_EQ(outcome.calls, 1);
    EXPECT_TRUE(
        log.contains(", err " + std::to_string(-GetParam().code - 1) + " on req: " + uri()));
}

const std::string ok_head = "HTTP/1.1 200 OK\r\n";

std::string many_headers(int count, std::size_t size)
{
    std::string lines;
    for (int i = 0; i < count; ++i) {
        const std::string name = "X-" + std::to_string(i) + ": ";
        lines += name + std::string(size - name.size() - 2, 'x') + "\r\n";
    }
    return lines;
}

INSTANTIATE_TEST_SUITE_P(
    Answers, HttpClientAnswer,
    testing::Values(
        broken_case{"Nothing", "", -2, true}, broken_case{"HalfAHead", ok_head, -2, true},
        broken_case{"HalfABody", ok_head + "Content-Length: 10\r\n\r\nhalf", -2, true},
        broken_case{"HalfAChunk", ok_head + "Transfer-Encoding: chunked\r\n\r\n5\r\nab", -2, true},
        broken_case{"Garbage", "this is no HTTP\r\n\r\n", -3, false},
        broken_case{"NoColonInHeader", ok_head + "nonsense\r\n\r\n", -3, false},
        broken_case{"NegativeLength", ok_head + "Content-Length: -5\r\n\r\n", -3, false},
        broken_case{"LengthIsNoNumber", ok_head + "Content-Length: x\r\n\r\n", -3, false},
        broken_case{"LongHead", ok_head + "X: " + std::string(17000, 'x') + "\r\n\r\n", -3, false},
        broken_case{"AHundredHeadersOfAKibibyte", ok_head + many_headers(100, 1024) + "\r\n", -3,
                    false},
        broken_case{"LongStatusLine", "HTTP/1.1 200 " + std::string(17000, 'x'), -3, false},
        broken_case{"AnnouncesTooMuch",
                    ok_head + "Content-Length: " + std::to_string(largest + 1) + "\r\n\r\n", -6,
                    false},
        broken_case{"AnnouncesMoreThanThereIs",
                    ok_head + "Content-Length: 9223372036854775807\r\n\r\n", -6, false},
        broken_case{"ChunkTooLong", ok_head + "Transfer-Encoding: chunked\r\n\r\n10001\r\n", -6,
                    false},
        broken_case{"ChunkSizeIsNoNumber", ok_head + "Transfer-Encoding: chunked\r\n\r\nxyz\r\n",
                    -6, false},
        broken_case{"TooMuchWithoutALength", ok_head + "\r\n" + std::string(largest + 1, 'x'), -6,
                    false}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(HttpClientFailures, AHeadOf16KibibytesIsServed)
{
    const std::string fixed = "Content-Length: 2\r\n";
    server.reply = ok_head + fixed + "X: " + std::string(16000, 'x') + "\r\n\r\nok";
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, request(uri())).code, 200);
}

TEST_F(HttpClientFailures, AServerThatRedirectsIsNotFollowed)
{
    server.reply = "HTTP/1.1 302 Found\r\nLocation: " + uri() + "x\r\nContent-Length: 0\r\n\r\n";
    EXPECT_EQ(fetch(HTTP_CLIENT_GET, request(uri())).code, 302);
    EXPECT_EQ(server.requests.size(), 1U);
}

TEST_F(HttpClientFailures, AFailedRequestIsNotRepeated)
{
    server.reply = "";
    server.on_request = [](bufferevent *bufev) { shutdown(bufferevent_getfd(bufev), SHUT_RDWR); };
    EXPECT_EQ(fetch(HTTP_CLIENT_POST, request(uri())).code, -2);
    run_until([] { return false; }, 100);
    EXPECT_EQ(server.requests.size(), 1U);
}

TEST_F(HttpClientFailures, LeaveNoDescriptorBehind)
{
    const auto open_descriptors = [] {
        return std::distance(std::filesystem::directory_iterator{"/proc/self/fd"},
                             std::filesystem::directory_iterator{});
    };
    fetch(HTTP_CLIENT_GET, request(uri()));
    fetch(HTTP_CLIENT_GET, request("http://127.0.0.1:1/"));
    run_until([] { return false; }, 50);
    const auto before = open_descriptors();
    for (int i = 0; i < 20; ++i) {
        fetch(HTTP_CLIENT_GET, request(uri()));
        fetch(HTTP_CLIENT_GET, request("http://127.0.0.1:1/"));
    }
    run_until([] { return false; }, 50);
    EXPECT_EQ(open_descriptors(), before);
}

} // namespace
