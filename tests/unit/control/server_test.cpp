#include "control/server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <vector>

#include "async/common_async.h"
#include "control/connection.h"
#include "control/metrics.h"
#include "control/request.h"
#include "control/rounds.h"
#include "control/status.h"
#include "fakes/captured_log.h"
#include "fakes/no_descriptors.h"
#include "fakes/temporary_directory.h"
#include "handles/fd.h"
#include "handles/libevent.h"

namespace {

int documents = 0;
std::string metrics_text;

} // namespace

json_ptr control_status_document()
{
    ++documents;
    return json_ptr{cJSON_Parse("{}")};
}

json_ptr control_rounds_document()
{
    ++documents;
    return json_ptr{cJSON_Parse(R"({"rounds":[]})")};
}

std::string control_metrics_text()
{
    ++documents;
    return metrics_text;
}

namespace {

using namespace std::chrono_literals;

constexpr char status_request[] = "GET /v1/status HTTP/1.1\r\n\r\n";
constexpr char status_answer[] = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
                                 "Content-Length: 2\r\nCache-Control: no-store\r\n"
                                 "Connection: close\r\n\r\n{}";

/// One for the program, as in the daemon: actions cannot be given another.
event_base *loop()
{
    static const event_base_ptr base = [] {
        event_base_ptr made{event_base_new()};
        common_async_set_event_base(made.get());
        common_async_init();
        control_server_set_event_base(made.get());
        return made;
    }();
    return base.get();
}

void turn()
{
    event_base_loop(loop(), EVLOOP_NONBLOCK);
}

template <typename Condition>
bool turn_until(Condition condition)
{
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        turn();
    }
    return true;
}

class client {
  public:
    explicit client(const std::string &path)
        : socket_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)}
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        is_connected = connect(socket_.get(), reinterpret_cast<const sockaddr *>(&address),
                               sizeof address) == 0;
    }

    void send(std::string_view text) const
    {
        EXPECT_EQ(::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }

    void say_all() const
    {
        shutdown(socket_.get(), SHUT_WR);
    }

    /// What has come so far; sets has_ended.
    const std::string &received()
    {
        std::array<char, 65536> bytes;
        ssize_t size = 0;
        while ((size = recv(socket_.get(), bytes.data(), bytes.size(), 0)) > 0) {
            text_.append(bytes.data(), static_cast<std::size_t>(size));
        }
        has_ended = has_ended || size == 0 || (errno != EAGAIN && errno != EINTR);
        return text_;
    }

    /// All that is answered, up to the end.
    std::string answer()
    {
        EXPECT_TRUE(turn_until([this] {
            (void)received();
            return has_ended;
        }));
        return text_;
    }

    void set_receive_buffer(int size) const
    {
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }

    bool is_connected = false;
    bool has_ended = false;

  private:
    unique_fd socket_;
    std::string text_;
};

/// Lets every timer that is set for that time be due now.
void pass(const timeval &time)
{
    timeval now{};
    event_base_gettimeofday_cached(loop(), &now);
    struct looked_for {
        timeval time, now;
    } wanted{time, now};
    event_base_foreach_event(
        loop(),
        [](const event_base *, const event *watched, void *argument) {
            const auto &given = *static_cast<const looked_for *>(argument);
            timeval due{};
            if (event_pending(watched, EV_TIMEOUT, &due) != 0) {
                const double left = static_cast<double>(due.tv_sec - given.now.tv_sec) +
                                    static_cast<double>(due.tv_usec - given.now.tv_usec) / 1e6;
                if (left <= static_cast<double>(given.time.tv_sec) + 0.5) {
                    event_active(const_cast<event *>(watched), EV_TIMEOUT, 0);
                }
            }
            return 0;
        },
        &wanted);
    turn();
}

class ControlServer : public testing::Test {
  protected:
    ControlServer()
    {
        documents = 0;
        metrics_text = "a 1\n";
        (void)loop();
        control_server_start(path.c_str());
    }
    ~ControlServer() override
    {
        control_server_start("");
    }

    std::vector<std::unique_ptr<client>> hold(std::size_t count) const
    {
        std::vector<std::unique_ptr<client>> held;
        for (std::size_t i = 0; i < count; ++i) {
            held.push_back(std::make_unique<client>(path));
            turn();
            turn();
        }
        return held;
    }

    const temporary_directory directory;
    const std::string path = directory.path("control.sock");
};

TEST_F(ControlServer, AnswersARequestAndEndsTheConnection)
{
    client asking{path};
    asking.send(status_request);
    EXPECT_EQ(asking.answer(), status_answer);
    EXPECT_EQ(documents, 1);
}

TEST_F(ControlServer, TheMetricsAreTextOfPrometheus)
{
    client asking{path};
    asking.send("GET /v1/metrics HTTP/1.1\r\n\r\n");
    const std::string answer = asking.answer();
    EXPECT_NE(answer.find("\r\nContent-Type: text/plain; version=0.0.4\r\n"), std::string::npos);
    EXPECT_TRUE(answer.ends_with("\r\n\r\na 1\n"));
}

TEST_F(ControlServer, TakesARequestByteByByte)
{
    client asking{path};
    for (const char c : std::string_view{status_request}) {
        asking.send({&c, 1});
        turn();
    }
    EXPECT_EQ(asking.answer(), status_answer);
}

TEST_F(ControlServer, AClientThatHasSaidAllIsAnswered)
{
    client asking{path};
    asking.send(status_request);
    asking.say_all();
    EXPECT_EQ(asking.answer(), status_answer);
}

TEST_F(ControlServer, AnswersOneRequestOfAConnection)
{
    client asking{path};
    asking.send(std::string{status_request} + status_request);
    EXPECT_EQ(asking.answer(), status_answer);
    EXPECT_EQ(documents, 1);
}

struct refusal_case {
    const char *name;
    std::string text;
    const char *answer;
};
class ControlRefusal : public ControlServer, public testing::WithParamInterface<refusal_case> {};

TEST_P(ControlRefusal, IsAnsweredWith)
{
    client asking{path};
    asking.send(GetParam().text);
    asking.say_all();
    const std::string answer = asking.answer();
    EXPECT_TRUE(answer.starts_with(std::string{"HTTP/1.1 "} + GetParam().answer + "\r\n"))
        << answer;
    EXPECT_EQ(documents, 0);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Requests, ControlRefusal, testing::Values(
    refusal_case{"Garbage", "\x16\x03\x01\x02", "400 Bad Request"},
    refusal_case{"HalfARequest", "GET /v1/status HT", "400 Bad Request"},
    refusal_case{"AnotherPath", "GET /v1/statuses HTTP/1.1\r\n\r\n", "404 Not Found"},
    refusal_case{"AnotherMethod", "POST /v1/status HTTP/1.1\r\n\r\n", "405 Method Not Allowed"},
    refusal_case{"HeadToo", "HEAD /v1/status HTTP/1.1\r\n\r\n", "405 Method Not Allowed"},
    refusal_case{"AQueryOfTheStatus", "GET /v1/status?a=b HTTP/1.1\r\n\r\n", "400 Bad Request"},
    refusal_case{"ABadQuery", "GET /v1/rounds?wait=61 HTTP/1.1\r\n\r\n", "400 Bad Request"},
    refusal_case{"ALongHead", "GET /" + std::string(4200, 'a'), "431 Request Header Fields Too Large"}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

TEST_F(ControlServer, AHeadMayHave4096BytesAndNotOneMore)
{
    const std::string front = "GET /v1/status HTTP/1.1\r\nX: ";
    const std::string end = "\r\n\r\n";
    const std::size_t rest = control_head_limit - front.size() - end.size();
    client longest{path};
    longest.send(front + std::string(rest, 'x') + end);
    EXPECT_EQ(longest.answer(), status_answer);
    client longer{path};
    longer.send(front + std::string(rest + 1, 'x') + end);
    EXPECT_TRUE(longer.answer().starts_with("HTTP/1.1 431 "));
}

TEST_F(ControlServer, TheFifthClientIsTurnedAwayUntilOneHasGone)
{
    auto held = hold(control_place_limit);
    client fifth{path};
    fifth.send(status_request);
    EXPECT_TRUE(fifth.answer().starts_with("HTTP/1.1 503 Service Unavailable\r\n"));
    held.pop_back();
    turn();
    client sixth{path};
    sixth.send(status_request);
    EXPECT_EQ(sixth.answer(), status_answer);
}

TEST_F(ControlServer, WhoHasItsAnswerTakesNoPlace)
{
    std::vector<std::unique_ptr<client>> lingering; // none closes its connection
    for (std::size_t i = 0; i < 3 * control_place_limit; ++i) {
        lingering.push_back(std::make_unique<client>(path));
        lingering.back()->send(status_request);
        EXPECT_EQ(lingering.back()->answer(), status_answer) << i;
    }
}

TEST_F(ControlServer, AHeadMustBeWholeWithinFiveSeconds)
{
    client slow{path};
    slow.send("GET /v1/sta");
    turn();
    turn();
    pass({4, 0});
    (void)slow.received();
    EXPECT_FALSE(slow.has_ended);
    pass(control_head_time);
    EXPECT_EQ(slow.answer(), "");
}

TEST_F(ControlServer, AnAnswerMustBeTakenWithinTenSeconds)
{
    metrics_text.assign(8 << 20, 'x');
    client slow{path};
    slow.send("GET /v1/metrics HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(turn_until([] { return documents == 1; }));
    turn();
    pass({9, 0});
    pass(control_answer_time);
    EXPECT_LT(slow.answer().size(), metrics_text.size());
}

TEST_F(ControlServer, AnAnswerThatIsTakenLateIsWhole)
{
    metrics_text.assign(8 << 20, 'x');
    client slow{path};
    slow.send("GET /v1/metrics HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(turn_until([] { return documents == 1; }));
    turn();
    pass({9, 0});
    EXPECT_TRUE(slow.answer().ends_with(metrics_text));
}

TEST_F(ControlServer, ALongAnswerReachesAClientThatReads)
{
    metrics_text.assign(8 << 20, 'x');
    client reader{path};
    reader.send("GET /v1/metrics HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(reader.answer().ends_with(metrics_text));
}

constexpr char wait_request[] = "GET /v1/rounds?wait=7 HTTP/1.1\r\n\r\n";

TEST_F(ControlServer, AWaitEndsWithSomethingNew)
{
    control_server_tell(5);
    client waiting{path};
    waiting.send(wait_request);
    for (int i = 0; i < 10; ++i) {
        turn();
    }
    EXPECT_EQ(documents, 0);
    control_server_tell(5);
    turn();
    EXPECT_EQ(documents, 0);
    control_server_tell(6);
    EXPECT_TRUE(waiting.answer().ends_with(R"({"rounds":[]})"));
}

TEST_F(ControlServer, AWaitEndsWithItsTime)
{
    client waiting{path};
    waiting.send(wait_request);
    for (int i = 0; i < 10; ++i) {
        turn();
    }
    pass({6, 0});
    EXPECT_EQ(documents, 0);
    pass({7, 0});
    EXPECT_TRUE(waiting.answer().starts_with("HTTP/1.1 200 OK\r\n"));
}

TEST_F(ControlServer, AWaitForWhatHasHappenedIsNone)
{
    control_server_tell(7);
    client waiting{path};
    waiting.send("GET /v1/rounds?wait=60&after=6 HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(waiting.answer().starts_with("HTTP/1.1 200 OK\r\n"));
}

TEST_F(ControlServer, ALateNumberIsWaitedFor)
{
    control_server_tell(7);
    client waiting{path};
    waiting.send("GET /v1/rounds?wait=60&after=8 HTTP/1.1\r\n\r\n");
    waiting.say_all();
    for (int i = 0; i < 10; ++i) {
        turn();
    }
    control_server_tell(8);
    turn();
    EXPECT_EQ(documents, 0);
    control_server_tell(9);
    EXPECT_TRUE(waiting.answer().starts_with("HTTP/1.1 200 OK\r\n"));
}

TEST_F(ControlServer, WhoGoesWhileItWaitsGivesItsPlaceBack)
{
    auto held = hold(control_place_limit);
    for (const auto &one : held) {
        one->send(wait_request);
        turn();
        turn();
    }
    held.clear();
    turn();
    turn();
    client next{path};
    next.send(status_request);
    EXPECT_EQ(next.answer(), status_answer);
}

TEST_F(ControlServer, WhoHasSaidAllAndGoesGivesItsPlaceBack)
{
    auto held = hold(control_place_limit);
    for (const auto &one : held) {
        one->send(wait_request);
        one->say_all();
        turn();
        turn();
        turn();
    }
    client early{path}; // who only has said all still waits for the answer
    early.send(status_request);
    EXPECT_TRUE(early.answer().starts_with("HTTP/1.1 503 "));
    held.clear();
    turn();
    turn();
    client next{path};
    next.send(status_request);
    EXPECT_EQ(next.answer(), status_answer);
}

TEST_F(ControlServer, TheSocketIsForOwnerAndGroup)
{
    struct stat found {};
    ASSERT_EQ(lstat(path.c_str(), &found), 0);
    EXPECT_TRUE(S_ISSOCK(found.st_mode));
    EXPECT_EQ(found.st_mode & 07777, mode_t{0660});
}

TEST_F(ControlServer, StartingAgainAtTheSamePathEndsNobody)
{
    client asking{path};
    turn();
    control_server_start(path.c_str());
    asking.send(status_request);
    EXPECT_EQ(asking.answer(), status_answer);
}

TEST_F(ControlServer, StartingAgainPutsASocketBackThatSomebodyHasRemoved)
{
    ASSERT_EQ(unlink(path.c_str()), 0);
    control_server_start(path.c_str());
    client asking{path};
    EXPECT_TRUE(asking.is_connected);
}

TEST_F(ControlServer, AnotherPathTakesThePlaceOfTheFirst)
{
    client asking{path};
    turn();
    const std::string other = directory.path("other.sock");
    control_server_start(other.c_str());
    EXPECT_EQ(asking.answer(), "");
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    client next{other};
    next.send(status_request);
    EXPECT_EQ(next.answer(), status_answer);
}

TEST_F(ControlServer, OutOfDescriptorsItRestsAndServesAgain)
{
    client waiting{path};
    waiting.send(status_request);
    {
        const captured_log log;
        {
            const no_descriptors none{3};
            for (int i = 0; i < 200; ++i) {
                turn();
            }
        }
        EXPECT_EQ(log.count("WARN control - accept_later - cannot accept: "), 1)
            << "the loop spins";
    }
    EXPECT_EQ(waiting.answer(), status_answer);
}

TEST_F(ControlServer, OneConnectionIsAcceptedInATurn)
{
    client first{path};
    client second{path};
    first.send("bad\n");
    second.send("bad\n");
    event_base_loop(loop(), EVLOOP_NONBLOCK | EVLOOP_ONCE);
    event_base_loop(loop(), EVLOOP_NONBLOCK | EVLOOP_ONCE);
    EXPECT_TRUE(first.received().starts_with("HTTP/1.1 400 "));
    EXPECT_EQ(second.received(), "");
    EXPECT_TRUE(second.answer().starts_with("HTTP/1.1 400 "));
}

TEST_F(ControlServer, ManyMayComeAtOnce)
{
    std::vector<std::unique_ptr<client>> all;
    for (int i = 0; i < control_backlog; ++i) {
        all.push_back(std::make_unique<client>(path)); // which would not wait
        EXPECT_TRUE(all.back()->is_connected) << i;
    }
}

TEST_F(ControlServer, NoPathIsNoServer)
{
    control_server_start("");
    EXPECT_FALSE(control_server_is_listening());
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST_F(ControlServer, WhatIsNoSocketStaysAndTheDaemonGoesOnWithout)
{
    const std::string file = directory.write("file", "somebody's");
    const captured_log log;
    control_server_start(file.c_str());
    EXPECT_FALSE(control_server_is_listening());
    EXPECT_TRUE(log.contains("WARN control - control_server_start - no control socket at " + file));
    EXPECT_EQ(directory.read("file"), "somebody's");
}

TEST_F(ControlServer, APathOf107CharactersIsTheLongest)
{
    const std::string folder = directory.path("");
    const std::string longest = folder + std::string(control_path_limit - folder.size(), 's');
    control_server_start(longest.c_str());
    EXPECT_TRUE(control_server_is_listening());
    const captured_log log;
    control_server_start((longest + "s").c_str());
    EXPECT_FALSE(control_server_is_listening());
    EXPECT_TRUE(log.contains("the path is longer than 107 characters"));
}

} // namespace
