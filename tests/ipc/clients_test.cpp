#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>

#include "fakes/captured_log.h"
#include "fakes/child_program.h"
#include "fakes/emulated.h"
#include "fakes/ipc_peer.h"
#include "fakes/temporary_directory.h"
#include "handles/libevent.h"
#include "velm_conn.h"
#include "velm_ipc.h"

namespace {

std::vector<std::uint16_t> asked_timeouts;
std::function<int(velm_ipc *server, std::uint32_t seq)> on_request;

int take_request(velm_ipc *server, std::uint32_t seq, std::uint16_t, const void *payload,
                 std::size_t)
{
    velm_location_request request{};
    std::memcpy(&request, payload, sizeof request);
    asked_timeouts.push_back(request.timeout);
    return on_request == nullptr ? 1 : on_request(server, seq);
}

velm_location_report sample_report()
{
    velm_location_report report{};
    report.valid = 1;
    report.latitude = 52.25;
    report.longitude = 21.5;
    report.horizontal_uncertainty1 = 4.5;
    report.rssi = -54;
    std::strcpy(report.phone_model, "iPhone15,2");
    return report;
}

int broadcast(velm_ipc *server, const velm_location_report &report)
{
    return velm_ipc_broadcast_report(server, &report, sizeof report);
}

class IpcClients : public testing::Test {
  protected:
    IpcClients()
    {
        asked_timeouts.clear();
        on_request = nullptr;
        start_server();
    }

    [[nodiscard]] std::vector<std::string> velmctl(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), VELMCTL);
        arguments.insert(arguments.end(), {"--socket", socket_path});
        return arguments;
    }

    int run(child_program &program)
    {
        EXPECT_TRUE(ipc_turn_until(base.get(), [&program] { return program.has_ended(); }));
        return program.exit_status();
    }

    /// Somebody else than the daemon at its path.
    [[nodiscard]] unique_fd listen_here() const
    {
        unlink(socket_path.c_str());
        unique_fd listener{socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socket_path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener.get(), 0), 0);
        return listener;
    }

    void start_server()
    {
        server = velm_ipc_create(base.get(), nullptr, socket_path.c_str());
        ASSERT_NE(server, nullptr);
        velm_ipc_set_cmd_handler(server.get(), take_request);
    }

    bool turn_until_connected(const captured_log &log)
    {
        return ipc_turn_until(base.get(), [&log] { return log.contains("Connection accepted"); });
    }

    const temporary_directory directory;
    const std::string socket_path = directory.path() + "/socket";
    const event_base_ptr base{event_base_new()};
    velm_ipc_ptr server;
};

TEST_F(IpcClients, LocateAsksAndPrintsTheReport)
{
    on_request = [](velm_ipc *asked, std::uint32_t) { return broadcast(asked, sample_report()); };
    child_program program{velmctl({"locate", "--timeout", "515", "--wait", "9"})};
    EXPECT_EQ(run(program), 0);
    EXPECT_EQ(asked_timeouts, std::vector<std::uint16_t>{515});
    EXPECT_NE(program.out.find("position: 52.2500000, 21.5000000\n"), std::string::npos);
    EXPECT_NE(program.out.find("phone model: iPhone15,2\n"), std::string::npos);
    EXPECT_EQ(program.error, "");
}

TEST_F(IpcClients, LocateAsksForSixtySecondsUnlessToldOtherwise)
{
    on_request = [](velm_ipc *asked, std::uint32_t) { return broadcast(asked, sample_report()); };
    child_program program{velmctl({"locate"})};
    EXPECT_EQ(run(program), 0);
    EXPECT_EQ(asked_timeouts, std::vector<std::uint16_t>{60});
}

TEST_F(IpcClients, LocatePrintsOneJsonObject)
{
    on_request = [](velm_ipc *asked, std::uint32_t) { return broadcast(asked, sample_report()); };
    child_program program{velmctl({"locate", "--json"})};
    EXPECT_EQ(run(program), 0);
    EXPECT_EQ(program.out.find("{\"kind\":\"report\",\"type\":40960,\"id\":1,"), 0U);
    EXPECT_EQ(std::count(program.out.begin(), program.out.end(), '\n'), 1);
}

TEST_F(IpcClients, LocateEndsWithThreeWhenNoPhoneIsPaired)
{
    on_request = [](velm_ipc *asked, std::uint32_t seq) {
        const velm_location_report none{};
        return velm_ipc_respond(asked, seq, &none, sizeof none, VELM_STATUS_NO_PAIRED_DEVICES);
    };
    child_program program{velmctl({"locate"})};
    EXPECT_EQ(run(program), 3);
    EXPECT_EQ(program.out, "");
    EXPECT_EQ(program.error, "velmctl: no phone is paired\n");
}

TEST_F(IpcClients, LocatePrintsTheAnswerAsJsonToo)
{
    on_request = [](velm_ipc *asked, std::uint32_t seq) {
        return velm_ipc_respond(asked, seq, nullptr, 0, VELM_STATUS_NO_PAIRED_DEVICES);
    };
    child_program program{velmctl({"locate", "--json"})};
    EXPECT_EQ(run(program), 3);
    EXPECT_NE(program.out.find("\"status_text\":\"no paired devices\"}"), std::string::npos);
}

TEST_F(IpcClients, LocateEndsWithFiveWhenTheDaemonIsBusy)
{
    on_request = [](velm_ipc *, std::uint32_t) { return 0; };
    child_program program{velmctl({"locate"})};
    EXPECT_EQ(run(program), 5);
    EXPECT_EQ(program.error, "velmctl: the daemon is busy\n");
}

TEST_F(IpcClients, LocateEndsWithFourWhenTheTimeIsUp)
{
    child_program program{velmctl({"locate", "--wait", "1"})};
    EXPECT_EQ(run(program), 4);
    EXPECT_EQ(asked_timeouts.size(), 1U);
    EXPECT_EQ(program.error, "velmctl: no location came in time\n");
}

TEST_F(IpcClients, LocateFailsWhenTheDaemonGoes)
{
    child_program program{velmctl({"locate"})};
    EXPECT_TRUE(ipc_turn_until(base.get(), [] { return !asked_timeouts.empty(); }));
    server.reset();
    EXPECT_EQ(run(program), 1);
    EXPECT_EQ(program.error,
              "velmctl: the daemon closed the connection before a location came: it was reloaded,"
              " or it is full and another client got the place; ask again\n");
}

TEST_F(IpcClients, LocateSaysThatTheRequestWasNotReadWhenTheDaemonClosesAtOnce)
{
    server.reset();
    const unique_fd listener = listen_here();
    child_program program{velmctl({"locate"})};
    unique_fd accepted;
    EXPECT_TRUE(ipc_turn_until(base.get(), [&] {
        pollfd sent{accepted.get(), POLLIN, 0};
        if (!accepted) {
            accepted.reset(accept(listener.get(), nullptr, nullptr));
        }
        return accepted && poll(&sent, 1, 0) == 1;
    }));
    accepted.reset(); // with the request unread, so the client's connection is reset
    EXPECT_EQ(run(program), 1);
    EXPECT_EQ(program.error,
              "velmctl: the daemon closed the connection at once and did not read the request:"
              " it is full, or it was reloaded\n");
}

TEST_F(IpcClients, LocateEndsWithFourWhenTheDaemonDoesNotAccept)
{
    server.reset();
    const unique_fd listener = listen_here(); // never accepts, and has room for one
    const unique_fd first = ipc_connect(socket_path);
    ASSERT_FALSE(ipc_connect(socket_path));
    child_program program{velmctl({"locate", "--wait", "1"})};
    EXPECT_EQ(run(program), 4);
    EXPECT_EQ(program.error, "velmctl: the daemon did not take the connection in time\n");
}

TEST_F(IpcClients, LocateFailsWhereNobodyListens)
{
    server.reset();
    child_program program{velmctl({"locate"})};
    EXPECT_EQ(run(program), 1);
    EXPECT_NE(program.error.find("Connection refused"), std::string::npos);
}

TEST_F(IpcClients, LocatePassesOverFramesThatMakeNoSense)
{
    on_request = [](velm_ipc *asked, std::uint32_t) {
        velm_ipc_broadcast_report(asked, "short", 5);
        return broadcast(asked, sample_report());
    };
    child_program program{velmctl({"locate"})};
    EXPECT_EQ(run(program), 0);
    EXPECT_EQ(program.error, "velmctl: passed over a frame of type 40960\n");
}

TEST_F(IpcClients, AHostileReportCannotForgeLines)
{
    on_request = [](velm_ipc *asked, std::uint32_t) {
        velm_location_report report = sample_report();
        std::fill(std::begin(report.phone_model), std::end(report.phone_model), '\n');
        std::fill(std::begin(report.os_version), std::end(report.os_version), '\x1b');
        return broadcast(asked, report);
    };
    child_program program{velmctl({"locate"})};
    EXPECT_EQ(run(program), 0);
    EXPECT_NE(program.out.find("phone model: " + std::string(64, '?') + "\n"), std::string::npos);
    EXPECT_NE(program.out.find("phone os: " + std::string(64, '?') + "\n"), std::string::npos);
    EXPECT_EQ(std::count(program.out.begin(), program.out.end(), '\n'), 12);
}

TEST_F(IpcClients, WatchPrintsReportsAsTheyComeAndAsksNothing)
{
    child_program program{velmctl({"watch", "--json", "--wait", "2"})};
    const captured_log log;
    EXPECT_TRUE(turn_until_connected(log));
    for (int line = 1; line <= 3; ++line) {
        broadcast(server.get(), sample_report());
        EXPECT_TRUE(ipc_turn_until(base.get(), [&] {
            return program.has_ended() ||
                   std::count(program.out.begin(), program.out.end(), '\n') == line;
        }));
        EXPECT_FALSE(program.has_ended()) << program.error;
    }
    EXPECT_EQ(run(program), 0);
    EXPECT_EQ(std::count(program.out.begin(), program.out.end(), '\n'), 3);
    EXPECT_TRUE(asked_timeouts.empty());
}

TEST_F(IpcClients, WatchEndsWithFourWhenNothingCame)
{
    child_program program{velmctl({"watch", "--wait", "1"})};
    EXPECT_EQ(run(program), 4);
    EXPECT_EQ(program.out, "");
}

TEST_F(IpcClients, WatchGoesOnWhenTheDaemonReloads)
{
    child_program program{velmctl({"watch", "--wait", "9"})};
    {
        const captured_log log;
        EXPECT_TRUE(turn_until_connected(log));
    }
    const captured_log log;
    server.reset();
    start_server();
    EXPECT_TRUE(turn_until_connected(log));
    broadcast(server.get(), sample_report());
    EXPECT_TRUE(ipc_turn_until(base.get(), [&] {
        return program.has_ended() || program.out.find("position: ") != std::string::npos;
    }));
    EXPECT_FALSE(program.has_ended());
    EXPECT_EQ(program.error, "velmctl: the daemon closed the connection; trying again\n"
                             "velmctl: connected again\n");
}

TEST_F(IpcClients, WatchEndsWithItsTimeAlsoWhileTheDaemonIsAway)
{
    child_program program{velmctl({"watch", "--wait", "1"})};
    const captured_log log;
    EXPECT_TRUE(turn_until_connected(log));
    server.reset();
    EXPECT_EQ(run(program), 4);
    EXPECT_EQ(program.error, "velmctl: the daemon closed the connection; trying again\n");
}

/// Two of them, since each takes ten seconds: one meets a daemon that goes, the other a full one.
TEST_F(IpcClients, WatchBacksOffAndEndsWithinTenSecondsWhenTheDaemonIsFullOrStaysAway)
{
    const temporary_directory elsewhere;
    const std::string other_path = elsewhere.path() + "/socket";
    velm_ipc_ptr other_server = velm_ipc_create(base.get(), nullptr, other_path.c_str());
    child_program left{{VELMCTL, "watch", "--socket", other_path}};
    {
        const captured_log log;
        EXPECT_TRUE(turn_until_connected(log));
    }
    other_server.reset();

    server.reset();
    const unique_fd listener = listen_here();
    child_program program{velmctl({"watch"})};
    int connections = 0;
    const auto began = std::chrono::steady_clock::now();
    EXPECT_TRUE(ipc_turn_until(
        base.get(),
        [&] {
            connections += unique_fd{accept(listener.get(), nullptr, nullptr)} ? 1 : 0;
            return program.has_ended() && left.has_ended();
        },
        std::chrono::seconds{30}));
    EXPECT_EQ(program.exit_status(), 1);
    EXPECT_GE(connections, 3) << "a daemon that reloads closes once";
    EXPECT_LE(connections, 10) << "it knocks without a pause";
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::seconds{9});
    EXPECT_NE(program.error.find("the daemon is full"), std::string::npos) << program.error;
    EXPECT_EQ(left.exit_status(), 1);
    EXPECT_NE(left.error.find("Connection refused"), std::string::npos) << left.error;
}

TEST_F(IpcClients, WatchBeginsAnewAfterAReportWithWhatAnOutageMayLast)
{
    server.reset();
    const unique_fd listener = listen_here();
    child_program program{velmctl({"watch", "--wait", "3"})};
    const velm_location_report report = sample_report();
    const auto *const bytes = reinterpret_cast<const std::uint8_t *>(&report);
    const ipc_bytes frame = ipc_frame(40960, 1, ipc_bytes(bytes, bytes + sizeof report));
    int connections = 0;
    EXPECT_TRUE(ipc_turn_until(base.get(), [&] {
        const unique_fd accepted{accept(listener.get(), nullptr, nullptr)};
        if (accepted) {
            ++connections;
            ipc_send(accepted, frame);
        }
        return program.has_ended();
    }));
    EXPECT_EQ(program.exit_status(), 0);
    if (is_emulated()) {
        GTEST_SKIP() << "what the emulator is slow at looks like a longer pause";
    }
    EXPECT_GE(connections, 10) << "each was of use, so that each pause is the first";
}

TEST_F(IpcClients, WatchFailsAtOnceWhereNobodyListens)
{
    server.reset();
    child_program program{velmctl({"watch"})};
    EXPECT_EQ(run(program), 1);
    EXPECT_NE(program.error.find("Connection refused"), std::string::npos);
}

struct usage_case {
    const char *name;
    std::vector<std::string> arguments;
};
class VelmctlUsage : public IpcClients, public testing::WithParamInterface<usage_case> {};

TEST_P(VelmctlUsage, IsRefusedWithTwoAndTheUsage)
{
    std::vector<std::string> arguments = GetParam().arguments;
    arguments.insert(arguments.begin(), VELMCTL);
    child_program program{arguments};
    EXPECT_EQ(run(program), 2);
    EXPECT_NE(program.error.find("usage: velmctl locate"), std::string::npos);
    EXPECT_EQ(program.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, VelmctlUsage,
    testing::Values(usage_case{"NoCommand", {}}, usage_case{"UnknownCommand", {"find"}},
                    usage_case{"TwoCommands", {"locate", "watch"}},
                    usage_case{"UnknownOption", {"locate", "--loud"}},
                    usage_case{"NoValue", {"locate", "--socket"}},
                    usage_case{"TimeoutTooLarge", {"locate", "--timeout", "65536"}},
                    usage_case{"TimeoutNoNumber", {"locate", "--timeout", "1s"}},
                    usage_case{"TimeoutEmpty", {"locate", "--timeout", ""}},
                    usage_case{"WaitNegative", {"locate", "--wait", "-1"}},
                    usage_case{"WatchWithTimeout", {"watch", "--timeout", "5"}}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(IpcClients, HelpIsNoFailure)
{
    child_program program{{VELMCTL, "--help"}};
    EXPECT_EQ(run(program), 0);
    EXPECT_EQ(program.out.find("usage: velmctl locate"), 0U);
}

TEST_F(IpcClients, APathTooLongForASocketFails)
{
    child_program program{{VELMCTL, "locate", "--socket", std::string(108, 's')}};
    EXPECT_EQ(run(program), 1);
    EXPECT_NE(program.error.find("File name too long"), std::string::npos);
}

TEST_F(IpcClients, TheExampleOfTheDocumentPrintsTheLocation)
{
    on_request = [](velm_ipc *asked, std::uint32_t) { return broadcast(asked, sample_report()); };
    child_program program{{IPC_EXAMPLE, socket_path}};
    EXPECT_EQ(run(program), 0);
    EXPECT_EQ(program.out, "52.250000 21.500000 +-4.5 m\n");
    EXPECT_EQ(asked_timeouts, std::vector<std::uint16_t>{60});
}

TEST_F(IpcClients, TheExampleOfTheDocumentSaysThatTheDaemonClosed)
{
    child_program program{{IPC_EXAMPLE, socket_path}};
    EXPECT_TRUE(ipc_turn_until(base.get(), [] { return !asked_timeouts.empty(); }));
    server.reset();
    EXPECT_EQ(run(program), 1);
    EXPECT_EQ(program.error, socket_path + ": closed by the daemon\n");
}

TEST_F(IpcClients, TheExampleOfTheDocumentUnderstandsThatNoPhoneIsPaired)
{
    on_request = [](velm_ipc *asked, std::uint32_t seq) {
        const velm_location_report none{};
        return velm_ipc_respond(asked, seq, &none, sizeof none, VELM_STATUS_NO_PAIRED_DEVICES);
    };
    child_program program{{IPC_EXAMPLE, socket_path}};
    EXPECT_EQ(run(program), 3);
    EXPECT_EQ(program.error, "status 3\n");
}

} // namespace
