#include "tools/control/exchange.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <thread>

#include "handles/fd.h"
#include "tools/control/answer.h"

namespace {

using namespace std::chrono_literals;

/// A socket that takes one connection, when it is told to, and serves it in a thread of its own.
class ControlExchange : public testing::Test {
  protected:
    ControlExchange()
    {
        std::string made = testing::TempDir() + "/control-XXXXXX";
        directory = mkdtemp(made.data());
        path = directory / "socket";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        listener.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener.get(), 1), 0);
    }

    ~ControlExchange() override
    {
        ended = true;
        if (server.joinable()) {
            server.join();
        }
        std::filesystem::remove_all(directory);
    }

    /// `take` gets the connection after the request was read.
    void serve(std::function<void(int)> take)
    {
        server = std::thread{[this, take = std::move(take)] {
            const unique_fd peer{accept(listener.get(), nullptr, nullptr)};
            char piece[4096];
            while (request.find("\r\n\r\n") == std::string::npos) {
                const ssize_t count = recv(peer.get(), piece, sizeof piece, 0);
                if (count <= 0) {
                    return;
                }
                request.append(piece, static_cast<std::size_t>(count));
            }
            take(peer.get());
        }};
    }

    static bool say(int peer, std::string_view text)
    {
        return send(peer, text.data(), text.size(), MSG_NOSIGNAL) > 0;
    }

    velmctl_answer ask(std::chrono::milliseconds limit = 5s)
    {
        return control_ask(path, "/v1/status", limit);
    }

    std::filesystem::path directory, path;
    unique_fd listener;
    std::thread server;
    std::string request;
    std::atomic<bool> ended = false;
};

TEST_F(ControlExchange, GivesStatusAndBody)
{
    serve([](int peer) { say(peer, "HTTP/1.1 404 No\r\ncontent-length:  2 \r\n\r\n{}surplus"); });
    const velmctl_answer answer = ask();
    EXPECT_EQ(answer.result, control_result::done);
    EXPECT_EQ(answer.status, 404);
    EXPECT_EQ(answer.body, "{}");
    EXPECT_EQ(request.substr(0, 26), "GET /v1/status HTTP/1.1\r\nH");
}

TEST_F(ControlExchange, ABodyWithoutLengthEndsWithTheConnection)
{
    serve([](int peer) { say(peer, "HTTP/1.1 200 OK\r\n\r\nall of it"); });
    EXPECT_EQ(ask().body, "all of it");
}

TEST_F(ControlExchange, ADripDoesNotOutlastTheLimit)
{
    serve([this](int peer) {
        while (!ended && say(peer, "H")) {
            std::this_thread::sleep_for(10ms);
        }
    });
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(ask(300ms).result, control_result::timed_out);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, 3s);
}

TEST_F(ControlExchange, AFloodIsCutOff)
{
    serve([this](int peer) {
        say(peer, "HTTP/1.1 200 OK\r\n\r\n");
        const std::string flood(65536, 'x');
        while (!ended && say(peer, flood)) {
        }
    });
    const velmctl_answer answer = ask();
    EXPECT_EQ(answer.result, control_result::broken);
    EXPECT_EQ(answer.why, "its answer is too long");
}

TEST_F(ControlExchange, NobodyThereIsUnreachable)
{
    listener.reset();
    EXPECT_EQ(ask().why, "Connection refused");
    EXPECT_EQ(control_ask(directory / "gone", "/", 1s).result, control_result::unreachable);
    EXPECT_EQ(control_ask(std::string(108, 'x'), "/", 1s).why, "File name too long");
    EXPECT_EQ(control_ask("", "/", 1s).why, "no path");
}

TEST_F(ControlExchange, AConnectionThatEndsWithoutAWordHasEnded)
{
    serve([](int) {});
    EXPECT_EQ(ask().result, control_result::ended);
}

TEST_F(ControlExchange, ADaemonThatTakesNoConnectionIsNotWaitedForForEver)
{
    const auto again = [this] { return ask(200ms).result; };
    // The queue of the listener has room for a few.
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(again(), control_result::timed_out);
    }
}

struct head_case {
    const char *name, *text;
    bool good;
    std::size_t size;
};
class ControlHead : public testing::TestWithParam<head_case> {};

TEST_P(ControlHead, IsReadAsFarAsItHasCome)
{
    velmctl_head head;
    EXPECT_EQ(velmctl_head_parse(GetParam().text, head) == nullptr, GetParam().good);
    EXPECT_EQ(head.size, GetParam().size);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ControlHead,
    testing::Values(
        head_case{"Nothing", "", true, 0}, head_case{"Part", "HTTP/1.1 2", true, 0},
        head_case{"Whole", "HTTP/1.1 200 OK\r\n\r\nx", true, 19},
        head_case{"NoReason", "HTTP/1.0 200\r\n\r\n", true, 16},
        head_case{"OtherProtocol", "ICY 200 OK\r\n\r\n", false, 0},
        head_case{"NoStatus", "HTTP/1.1 OK\r\n\r\n", false, 0},
        head_case{"Status99", "HTTP/1.1 099 X\r\n\r\n", false, 0},
        head_case{"Length", "HTTP/1.1 200 O\r\nContent-Length: 7\r\n\r\n", true, 37},
        head_case{"LengthIsNoNumber", "HTTP/1.1 200 O\r\nContent-Length: 7a\r\n\r\n", false, 0},
        head_case{"LengthIsNegative", "HTTP/1.1 200 O\r\nContent-Length: -7\r\n\r\n", false, 0},
        head_case{"Chunked", "HTTP/1.1 200 O\r\ntransfer-encoding: chunked\r\n\r\n", false, 0}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST(ControlHead, AndBodyHaveALimit)
{
    velmctl_head head;
    const std::string begin = "HTTP/1.1 200 OK\r\nX: ";
    const std::string fits(velmctl_head_limit - begin.size(), 'x');
    EXPECT_EQ(velmctl_head_parse(begin + fits, head), nullptr);
    EXPECT_NE(velmctl_head_parse(begin + fits + 'x', head), nullptr);
    const std::string length = "HTTP/1.1 200 OK\r\nContent-Length: ";
    EXPECT_EQ(velmctl_head_parse(length + std::to_string(velmctl_body_limit) + "\r\n\r\n", head),
              nullptr);
    velmctl_head other;
    EXPECT_NE(
        velmctl_head_parse(length + std::to_string(velmctl_body_limit + 1) + "\r\n\r\n", other),
        nullptr);
}

} // namespace
