#include "process/notify.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/temporary_directory.h"
#include "handles/fd.h"
#include "handles/libevent.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const std::string ready_of_this = "READY=1\nMAINPID=" + std::to_string(getpid()) + "\nSTATUS=";

/// The supervisor's end of the socket.
class Notify : public testing::Test {
  protected:
    Notify()
    {
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~Notify() override
    {
        for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
            unsetenv(name);
        }
        process_notify_begin(); // lets go of timers before their base
        std::signal(SIGTERM, SIG_DFL);
    }

    static unique_fd listen_at(const std::string &name)
    {
        unique_fd receiver{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(bind(receiver.get(), reinterpret_cast<sockaddr *>(&address), length), 0);
        return receiver;
    }

    static std::vector<std::string> told(const unique_fd &receiver)
    {
        std::vector<std::string> messages;
        std::array<char, 512> text;
        ssize_t length = 0;
        while ((length = recv(receiver.get(), text.data(), text.size(), 0)) >= 0) {
            messages.emplace_back(text.data(), static_cast<std::size_t>(length));
        }
        return messages;
    }
    [[nodiscard]] std::vector<std::string> told() const
    {
        return told(supervisor);
    }

    /// Turns the loop until something has been told, 5 s at most.
    std::vector<std::string> turn_until_told()
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds{5};
        std::vector<std::string> messages;
        while (messages.empty() && std::chrono::steady_clock::now() < end) {
            event_base_loop(base.get(), EVLOOP_ONCE);
            messages = told();
        }
        return messages;
    }
    /// Sends statuses until the kernel takes no more of them: "0" to "1999".
    static void fill_supervisor()
    {
        const int kernel_buffer_messages = 2000; // the kernel queues far fewer
        for (int i = 0; i < kernel_buffer_messages; ++i) {
            process_notify_status("%d", i);
        }
    }
    [[nodiscard]] bool has_timer() const
    {
        return event_base_get_num_events(base.get(), EVENT_BASE_COUNT_ADDED) > 0;
    }

    temporary_directory directory;
    std::string path = directory.path("notify");
    unique_fd supervisor = listen_at(path);
    event_base_ptr base{event_base_new()};
};

TEST_F(Notify, WithoutTheVariableTellsNobodyAndKeepsTheSignal)
{
    unsetenv("NOTIFY_SOCKET");
    setenv("WATCHDOG_USEC", "1000000", 1);
    process_notify_begin();
    process_notify_set_event_base(base.get());
    process_notify_status("Serves");
    process_notify_ready();
    process_notify_reloading();
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_FALSE(has_timer());
    EXPECT_EQ(std::signal(SIGTERM, SIG_DFL), SIG_DFL);
}

TEST_F(Notify, TakesTheVariablesFromTheEnvironmentOfChildren)
{
    setenv("WATCHDOG_USEC", "1000000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    process_notify_begin();
    for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
        EXPECT_EQ(std::getenv(name), nullptr) << name;
    }
}

TEST_F(Notify, ReadyNamesThePidAndTheStatus)
{
    process_notify_begin();
    process_notify_status("Serves phones at %s:%u", "192.168.1.1", 8080U);
    process_notify_ready();
    EXPECT_THAT(told(), ElementsAre("STATUS=Serves phones at 192.168.1.1:8080",
                                    ready_of_this + "Serves phones at 192.168.1.1:8080"));
}

TEST_F(Notify, ReadyIsToldOnceForTheStartAndOnceForEachReload)
{
    process_notify_begin();
    process_notify_ready();
    process_notify_ready();
    EXPECT_THAT(told(), ElementsAre(ready_of_this));
    process_notify_reloading();
    process_notify_ready();
    process_notify_ready();
    const std::vector<std::string> messages = told();
    EXPECT_THAT(messages, ElementsAre(StartsWith("RELOADING=1\nMONOTONIC_USEC="), ready_of_this));
}

TEST_F(Notify, ReloadingNamesTheSteadyClock)
{
    using std::chrono::duration_cast;
    using std::chrono::microseconds;
    const auto now = [] {
        return duration_cast<microseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count();
    };
    process_notify_begin();
    const auto before = now();
    process_notify_reloading();
    const auto after = now();
    const std::vector<std::string> messages = told();
    ASSERT_EQ(messages.size(), 1U);
    const auto moment = std::stoll(messages[0].substr(messages[0].rfind('=') + 1));
    EXPECT_LE(before, moment);
    EXPECT_GE(after, moment);
}

TEST_F(Notify, AStatusIsToldWhenItIsNew)
{
    process_notify_begin();
    process_notify_status("Serves");
    process_notify_status("Serves");
    process_notify_status("Waits");
    EXPECT_THAT(told(), ElementsAre("STATUS=Serves", "STATUS=Waits"));
}

TEST_F(Notify, AStatusAddsNoLineAndIsCut)
{
    process_notify_begin();
    process_notify_status("Serves %s", "1.2.3.4\nREADY=1\x7f");
    process_notify_status("%s", std::string(199, 'a').c_str());
    process_notify_status("%s", std::string(300, 'b').c_str());
    EXPECT_THAT(told(),
                ElementsAre("STATUS=Serves 1.2.3.4?READY=1?", "STATUS=" + std::string(199, 'a'),
                            "STATUS=" + std::string(199, 'b')));
}

TEST_F(Notify, AnAtSignMeansTheAbstractNameSpace)
{
    const std::string name = "velm-notify-test-" + std::to_string(getpid());
    const unique_fd abstract = listen_at('\0' + name);
    setenv("NOTIFY_SOCKET", ('@' + name).c_str(), 1);
    process_notify_begin();
    process_notify_ready();
    EXPECT_THAT(told(abstract), ElementsAre(ready_of_this));
}

TEST_F(Notify, APathMayFillTheAddress)
{
    const std::size_t room = sizeof(sockaddr_un{}.sun_path) - 1;
    const std::string longest = path + std::string(room - path.size(), 'x');
    const unique_fd receiver = listen_at(longest);
    setenv("NOTIFY_SOCKET", longest.c_str(), 1);
    process_notify_begin();
    process_notify_ready();
    EXPECT_THAT(told(receiver), ElementsAre(ready_of_this));
}

class NotifyName : public Notify, public testing::WithParamInterface<std::string> {};

TEST_P(NotifyName, ThatIsNoSocketIsNamedInTheLog)
{
    captured_log log;
    setenv("NOTIFY_SOCKET", GetParam().c_str(), 1);
    process_notify_begin();
    process_notify_ready();
    EXPECT_EQ(log.count("NOTIFY_SOCKET is no socket's name: " + GetParam()), 1);
    EXPECT_EQ(std::signal(SIGTERM, SIG_DFL), SIG_DFL);
}
INSTANTIATE_TEST_SUITE_P(Bad, NotifyName,
                         testing::Values("/", "@", "relative", "vsock:2:1",
                                         "/" + std::string(107, 'x'), "@" + std::string(107, 'x')));

TEST_F(Notify, ASupervisorThatIsGoneIsNamedOnce)
{
    supervisor.reset();
    captured_log log;
    process_notify_begin();
    process_notify_set_event_base(base.get());
    process_notify_status("Serves");
    process_notify_ready();
    EXPECT_EQ(log.count("the supervisor cannot be told: Connection refused"), 1);
    EXPECT_FALSE(has_timer());
}

TEST_F(Notify, AFullSupervisorNeverBlocksAndIsToldReadinessAgain)
{
    process_notify_begin();
    process_notify_set_event_base(base.get());
    fill_supervisor();
    process_notify_ready();
    EXPECT_TRUE(has_timer());
    EXPECT_LT(told().size(), 2000U);
    EXPECT_THAT(turn_until_told(), ElementsAre(ready_of_this + "1999"));
    EXPECT_FALSE(has_timer());
}

TEST_F(Notify, AReloadThatBeginsTakesBackTheReadinessThatWaits)
{
    process_notify_begin();
    process_notify_set_event_base(base.get());
    fill_supervisor();
    process_notify_ready();
    ASSERT_TRUE(has_timer());
    process_notify_reloading();
    EXPECT_FALSE(has_timer()) << "the reload would look finished";
    EXPECT_LT(told().size(), 2000U);
    process_notify_ready();
    EXPECT_THAT(told(), ElementsAre(ready_of_this + "1999"));
}

TEST_F(Notify, TheWatchdogIsFedFromTheLoop)
{
    setenv("WATCHDOG_USEC", "20000", 1);
    process_notify_begin();
    process_notify_set_event_base(base.get());
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_THAT(turn_until_told(), ElementsAre("WATCHDOG=1"));
    EXPECT_THAT(turn_until_told(), ElementsAre("WATCHDOG=1"));
}

struct watchdog_case {
    const char *name, *microseconds, *pid;
    bool is_fed;
};
class NotifyWatchdog : public Notify, public testing::WithParamInterface<watchdog_case> {};

TEST_P(NotifyWatchdog, IsFedWhenThisProcessIsAskedTo)
{
    const std::string own = std::to_string(getpid());
    if (*GetParam().microseconds != '\0') {
        setenv("WATCHDOG_USEC", GetParam().microseconds, 1);
    }
    if (*GetParam().pid != '\0') {
        setenv("WATCHDOG_PID", std::strcmp(GetParam().pid, "own") == 0 ? own.c_str() : "1", 1);
    }
    process_notify_begin();
    process_notify_set_event_base(base.get());
    EXPECT_EQ(has_timer(), GetParam().is_fed);
}
INSTANTIATE_TEST_SUITE_P(Environment, NotifyWatchdog,
                         testing::Values(watchdog_case{"Asked", "30000000", "own", true},
                                         watchdog_case{"AnyProcess", "30000000", "", true},
                                         watchdog_case{"AnHour", "3600000000", "own", true},
                                         watchdog_case{"AHundredYears", "3155760000000000", "own",
                                                       true},
                                         watchdog_case{"Another", "30000000", "1", false},
                                         watchdog_case{"NotAsked", "", "own", false},
                                         watchdog_case{"Zero", "0", "own", false},
                                         watchdog_case{"Negative", "-5", "own", false},
                                         watchdog_case{"NoNumber", "30s", "own", false},
                                         watchdog_case{"OneMicrosecond", "1", "own", true}),
                         [](const auto &row) { return std::string{row.param.name}; });

/// In the child that the death test makes.
[[noreturn]] void begin_and_be_ended()
{
    process_notify_begin();
    std::raise(SIGTERM);
    std::_Exit(1);
}

TEST_F(Notify, SigtermIsToldAndEndsTheProcessByTheSignal)
{
    EXPECT_EXIT(begin_and_be_ended(), testing::KilledBySignal(SIGTERM), "");
    EXPECT_THAT(told(), ElementsAre("STOPPING=1\nSTATUS=Stops"));
}

} // namespace
