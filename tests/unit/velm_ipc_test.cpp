#include "velm_ipc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "fakes/ipc_peer.h"
#include "fakes/no_descriptors.h"
#include "fakes/temporary_directory.h"
#include "handles/libevent.h"
#include "story/story.h"
#include "story/view.h"

namespace {

struct taken_request {
    std::uint32_t seq;
    std::uint16_t type;
    ipc_bytes payload;
};

std::vector<taken_request> taken;
int handler_result = 1;
bool respond_at_once = false;

int take_request(velm_ipc *server, std::uint32_t seq, std::uint16_t type, const void *payload,
                 std::size_t len)
{
    const auto *const bytes = static_cast<const std::uint8_t *>(payload);
    taken.push_back({seq, type, ipc_bytes(bytes, bytes + len)});
    if (respond_at_once) {
        EXPECT_EQ(velm_ipc_respond(server, seq, nullptr, 0, VELM_STATUS_NO_PAIRED_DEVICES), 1);
    }
    return handler_result;
}

class Ipc : public testing::Test {
  protected:
    Ipc()
    {
        taken.clear();
        handler_result = 1;
        respond_at_once = false;
        fake_clock_set(1700000000);
        server = velm_ipc_create(base.get(), nullptr, socket_path.c_str());
        if (server != nullptr) {
            velm_ipc_set_cmd_handler(server.get(), take_request);
        }
    }
    ~Ipc() override
    {
        fake_clock_reset();
    }

    unique_fd connect()
    {
        unique_fd client = ipc_connect(socket_path);
        EXPECT_TRUE(client);
        ipc_turn(base.get());
        return client;
    }

    bool turn_until_taken(std::size_t count)
    {
        return ipc_turn_until(base.get(), [count] { return taken.size() >= count; });
    }

    /// The client's next packet, while the loop turns.
    std::optional<ipc_bytes> answer_to(const unique_fd &client)
    {
        std::optional<ipc_bytes> packet;
        ipc_turn_until(base.get(), [&] { return (packet = ipc_receive(client)).has_value(); });
        return packet;
    }

    /// Lets the timer that is set be due now.
    void turn_timer_on()
    {
        event_base_foreach_event(
            base.get(),
            [](const event_base *, const event *watched, void *) {
                if (event_pending(watched, EV_TIMEOUT, nullptr) != 0) {
                    event_active(const_cast<event *>(watched), EV_TIMEOUT, 0);
                }
                return 0;
            },
            nullptr);
        ipc_turn(base.get());
    }

    int respond(std::uint32_t seq)
    {
        return velm_ipc_respond(server.get(), seq, "ok", 2, VELM_STATUS_OK);
    }

    const temporary_directory directory;
    const std::string socket_path = directory.path() + "/socket";
    const event_base_ptr base{event_base_new()};
    velm_ipc_ptr server;
};

TEST_F(Ipc, ARequestReachesTheCommandHandlerUnderTheServersOwnNumber)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(500, 30));
    ipc_send(client, ipc_request(500, 31));
    ASSERT_TRUE(turn_until_taken(2));
    EXPECT_EQ(taken[0].seq, 1U);
    EXPECT_EQ(taken[1].seq, 2U);
    EXPECT_EQ(taken[0].type, 4096);
    EXPECT_EQ(taken[0].payload.size(), 140U);
    std::uint16_t wanted_within = 0;
    std::memcpy(&wanted_within, taken[1].payload.data(), sizeof wanted_within);
    EXPECT_EQ(wanted_within, 31);
}

TEST_F(Ipc, AnAnswerGoesToTheConnectionThatAskedUnderTheIdItChose)
{
    const unique_fd asking = connect();
    const unique_fd silent = connect();
    ipc_send(asking, ipc_request(0xfffffffeU));
    ASSERT_TRUE(turn_until_taken(1));
    const char text[] = "payload";
    EXPECT_EQ(velm_ipc_respond(server.get(), 1, text, sizeof text, 3), 1);
    const auto packet = ipc_receive(asking);
    ASSERT_TRUE(packet.has_value());
    const velm_frame_header header = ipc_header(*packet);
    EXPECT_EQ(header.type, 4096);
    EXPECT_EQ(header.len, sizeof text);
    EXPECT_EQ(header.id, 0xfffffffeU);
    EXPECT_EQ(header.time, 1700000000U);
    EXPECT_EQ(header.status, 3U);
    EXPECT_EQ(ipc_payload(*packet), ipc_bytes(text, text + sizeof text));
    EXPECT_FALSE(ipc_receive(silent).has_value());
}

TEST_F(Ipc, ARequestIsAnsweredOnce)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    EXPECT_EQ(respond(1), 1);
    EXPECT_EQ(respond(1), 0);
    EXPECT_EQ(respond(2), 0);
}

TEST_F(Ipc, ARequestMayBeAnsweredFromInsideTheCommandHandler)
{
    respond_at_once = true;
    const unique_fd client = connect();
    ipc_send(client, ipc_request(9));
    const auto packet = answer_to(client);
    ASSERT_TRUE(packet.has_value());
    EXPECT_EQ(ipc_header(*packet).status, 3U);
    ipc_turn(base.get());
    EXPECT_FALSE(ipc_receive(client).has_value());
}

TEST_F(Ipc, ARefusedRequestIsAnsweredWithBusyAndForgotten)
{
    handler_result = 0;
    const unique_fd client = connect();
    ipc_send(client, ipc_request(42));
    const auto packet = answer_to(client);
    ASSERT_TRUE(packet.has_value());
    EXPECT_EQ(packet->size(), 16U);
    EXPECT_EQ(ipc_header(*packet).type, 4096);
    EXPECT_EQ(ipc_header(*packet).id, 42U);
    EXPECT_EQ(ipc_header(*packet).status, 1U);
    EXPECT_EQ(respond(1), 0);
}

TEST_F(Ipc, WithoutACommandHandlerEveryRequestIsAnsweredWithBusy)
{
    velm_ipc_set_cmd_handler(server.get(), nullptr);
    const unique_fd client = connect();
    ipc_send(client, ipc_request(42));
    const auto packet = answer_to(client);
    ASSERT_TRUE(packet.has_value());
    EXPECT_EQ(ipc_header(*packet).status, 1U);
}

TEST_F(Ipc, ARequestSplitAcrossTwoReadsIsTakenOnceBothHalvesArrived)
{
    const unique_fd client = connect();
    const ipc_bytes request = ipc_request(1);
    ipc_send(client, ipc_bytes(request.begin(), request.begin() + 100));
    ipc_turn(base.get());
    EXPECT_TRUE(taken.empty());
    ipc_send(client, ipc_bytes(request.begin() + 100, request.end()));
    EXPECT_TRUE(turn_until_taken(1));
}

TEST_F(Ipc, ARequestWithLength139IsSkippedAndTheNextFrameIsStillServed)
{
    const unique_fd client = connect();
    ipc_bytes packet = ipc_frame(4096, 1, ipc_bytes(139));
    const ipc_bytes request = ipc_request(2);
    packet.insert(packet.end(), request.begin(), request.end());
    ipc_send(client, packet);
    ASSERT_TRUE(turn_until_taken(1));
    respond(1);
    EXPECT_EQ(ipc_header(answer_to(client).value()).id, 2U);
}

TEST_F(Ipc, ARequestWaitsSixHundredSeconds)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    fake_clock_advance(600);
    velm_ipc_tick(server.get());
    EXPECT_EQ(respond(1), 1);
}

TEST_F(Ipc, ARequestNotAnsweredWithinSixHundredSecondsIsRemovedAndItsAnswerDropped)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(77));
    ASSERT_TRUE(turn_until_taken(1));
    const captured_log log;
    fake_clock_advance(601);
    velm_ipc_tick(server.get());
    EXPECT_TRUE(log.has("TRACE IPC - Removing orphaned request id=1 seq=77"));
    EXPECT_EQ(respond(1), 0);
    EXPECT_FALSE(ipc_receive(client).has_value());
}

/// The seconds after which time alone would wake the loop; none when it would not.
std::optional<double> timer_due(const event_base_ptr &base)
{
    std::optional<double> due;
    event_base_foreach_event(
        base.get(),
        [](const event_base *turning, const event *watched, void *result) {
            timeval end{};
            if (event_pending(watched, EV_TIMEOUT, &end) != 0) {
                timeval now{};
                event_base_gettimeofday_cached(const_cast<event_base *>(turning), &now);
                timeval left{};
                evutil_timersub(&end, &now, &left);
                *static_cast<std::optional<double> *>(result) =
                    static_cast<double>(left.tv_sec) + static_cast<double>(left.tv_usec) / 1e6;
            }
            return 0;
        },
        &due);
    return due;
}

bool timer_is_set(const event_base_ptr &base)
{
    return timer_due(base).has_value();
}

TEST_F(Ipc, TheTimerRestsWhileNothingWaits)
{
    EXPECT_FALSE(timer_is_set(base)) << "nobody has connected";
    const unique_fd client = connect();
    EXPECT_FALSE(timer_is_set(base)) << "nobody has asked";
}

TEST_F(Ipc, TheTimerRunsFromARequestToItsAnswer)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ipc_send(client, ipc_request(2));
    ASSERT_TRUE(turn_until_taken(2));
    EXPECT_TRUE(timer_is_set(base));
    EXPECT_EQ(respond(1), 1);
    EXPECT_TRUE(timer_is_set(base)) << "the second one waits";
    EXPECT_EQ(respond(2), 1);
    EXPECT_FALSE(timer_is_set(base));
    ipc_send(client, ipc_request(3));
    ASSERT_TRUE(turn_until_taken(3));
    EXPECT_TRUE(timer_is_set(base)) << "it must run again";
}

TEST_F(Ipc, ARequestThatIsAnsweredOrRefusedAtOnceSetsNoTimer)
{
    const unique_fd client = connect();
    respond_at_once = true;
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    EXPECT_FALSE(timer_is_set(base));
    respond_at_once = false;
    handler_result = 0;
    ipc_send(client, ipc_request(2));
    ASSERT_TRUE(turn_until_taken(2));
    EXPECT_FALSE(timer_is_set(base));
}

TEST_F(Ipc, ARequestThatWaitedTooLongTakesTheTimerWithIt)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    fake_clock_advance(601);
    velm_ipc_tick(server.get());
    EXPECT_FALSE(timer_is_set(base));
}

TEST_F(Ipc, WhileARequestWaitsTheClockIsLookedAtEveryThreeSeconds)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    EXPECT_NEAR(timer_due(base).value_or(0), 3, 0.5);
    turn_timer_on();
    EXPECT_NEAR(timer_due(base).value_or(0), 3, 0.5);
    EXPECT_EQ(respond(1), 1);
}

TEST_F(Ipc, ARequestWhoseReportHasComeWakesNobodyUntilItsTimeIsOver)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    EXPECT_EQ(velm_ipc_broadcast_report(server.get(), "report", 6), 1);
    EXPECT_NEAR(timer_due(base).value_or(0), 601, 1);
    turn_timer_on();
    EXPECT_NEAR(timer_due(base).value_or(0), 601, 1);
    EXPECT_EQ(respond(1), 1);
}

TEST_F(Ipc, AReportPutsOffNoTickThatAClosedConnectionWaitsFor)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    connect().reset();
    ASSERT_TRUE(ipc_turn_until(base.get(), [this] { return timer_due(base).value_or(9) < 0.7; }));
    EXPECT_EQ(velm_ipc_broadcast_report(server.get(), "report", 6), 1);
    EXPECT_LT(timer_due(base).value_or(9), 0.7);
}

TEST_F(Ipc, ARequestAfterAReportIsLookedAfterEveryThreeSecondsAgain)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    EXPECT_EQ(velm_ipc_broadcast_report(server.get(), "report", 6), 1);
    ipc_send(client, ipc_request(2));
    ASSERT_TRUE(turn_until_taken(2));
    EXPECT_NEAR(timer_due(base).value_or(0), 3, 0.5);
}

class IpcStory : public Ipc {
  protected:
    IpcStory()
    {
        story_forget();
    }
    ~IpcStory() override
    {
        story_forget();
    }

    static const story_round &newest()
    {
        return *story_look().rounds.at(0).round;
    }
};

TEST_F(IpcStory, ARoundBeginsWithARequestAndNamesWhoAsked)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(500));
    ASSERT_TRUE(turn_until_taken(1));
    EXPECT_EQ(newest().pid, getpid());
    EXPECT_EQ(newest().uid, getuid());
    EXPECT_EQ(newest().request_id, 500U);
    EXPECT_EQ(newest().state, story_state::open);
}

TEST_F(IpcStory, ARefusedRequestIsARoundThatWasBusy)
{
    handler_result = 0;
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    EXPECT_EQ(newest().state, story_state::refused);
    EXPECT_EQ(story_cause_of(newest()), story_cause::busy);
}

TEST_F(IpcStory, ARequestThatWaitedTooLongIsARoundThatExpired)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    fake_clock_advance(601);
    velm_ipc_tick(server.get());
    EXPECT_EQ(newest().state, story_state::expired);
}

TEST_F(IpcStory, ARequestWhoseClientWentIsARoundWithoutAClient)
{
    unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    client.reset();
    ipc_turn(base.get());
    velm_ipc_tick(server.get());
    EXPECT_EQ(newest().state, story_state::client_gone);
}

TEST_F(IpcStory, AReportIsToldWithTheNumberOfItsClients)
{
    const unique_fd one = connect();
    const unique_fd other = connect();
    ipc_send(one, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    EXPECT_EQ(velm_ipc_broadcast_report(server.get(), "report", 6), 1);
    story_report_done("phone", 0);
    EXPECT_EQ(newest().state, story_state::answered);
    EXPECT_EQ(story_look().rounds.at(0).reports.at(0)->clients, 2U);
}

TEST_F(Ipc, TheTimerIsSetForTheMomentAtWhichTheOldestRequestHasWaitedTooLong)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    fake_clock_advance(100);
    ipc_send(client, ipc_request(2));
    ASSERT_TRUE(turn_until_taken(2));
    fake_clock_advance(499);
    turn_timer_on();
    EXPECT_NEAR(timer_due(base).value_or(0), 2, 0.5) << "the second one is due later";
    fake_clock_advance(2);
    velm_ipc_tick(server.get());
    EXPECT_EQ(respond(1), 0);
    EXPECT_EQ(respond(2), 1);
    EXPECT_FALSE(timer_is_set(base));
}

TEST_F(Ipc, ARequestThatWaitedTooLongGoesByTheTimerAlone)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(77));
    ASSERT_TRUE(turn_until_taken(1));
    fake_clock_advance(601);
    const captured_log log;
    turn_timer_on();
    EXPECT_TRUE(log.has("TRACE IPC - Removing orphaned request id=1 seq=77"));
    EXPECT_FALSE(timer_is_set(base));
}

TEST_F(Ipc, AClockThatStepsBackHoldsNoRequestBack)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    fake_clock_advance(-3600);
    velm_ipc_tick(server.get());
    EXPECT_EQ(respond(1), 0);
    EXPECT_FALSE(timer_is_set(base));
}

TEST_F(Ipc, AConnectionThatIsLostIsDueBeforeAnOpenRequest)
{
    const unique_fd client = connect();
    unique_fd leaving = connect();
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    const captured_log log;
    leaving.reset();
    ASSERT_TRUE(ipc_turn_until(base.get(), [this] { return timer_due(base).value_or(9) < 1.5; }));
    ASSERT_TRUE(ipc_turn_until(base.get(), [&log] { return log.contains("Conn delete"); }));
    EXPECT_NEAR(timer_due(base).value_or(0), 3, 0.5);
}

TEST_F(Ipc, AConnectionThatWasClosedSetsTheTimerUntilItIsGone)
{
    connect().reset();
    ASSERT_TRUE(ipc_turn_until(base.get(), [this] { return timer_is_set(base); }));
    const captured_log log;
    ASSERT_TRUE(ipc_turn_until(base.get(), [&log] { return log.contains("Conn delete"); }))
        << "the timer did not tick by itself";
    EXPECT_FALSE(timer_is_set(base));
}

TEST_F(Ipc, AReportGoesToEveryConnectionAlsoToOneThatAskedNothing)
{
    const unique_fd asking = connect();
    const unique_fd silent = connect();
    ipc_send(asking, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    const ipc_bytes payload(224, 7);
    EXPECT_EQ(velm_ipc_broadcast_report(server.get(), payload.data(), payload.size()), 1);
    std::uint32_t number = 0;
    for (const unique_fd *client : {&asking, &silent}) {
        const auto packet = ipc_receive(*client);
        ASSERT_TRUE(packet.has_value());
        EXPECT_EQ(ipc_header(*packet).type, 40960);
        EXPECT_EQ(ipc_header(*packet).id, ++number) << "each report has a number of its own";
        EXPECT_EQ(ipc_header(*packet).status, 0U);
        EXPECT_EQ(ipc_payload(*packet), payload);
    }
}

TEST_F(Ipc, ThreeReportsAreThreePacketsOfTwoHundredAndFortyBytes)
{
    const unique_fd client = connect();
    for (std::uint8_t i = 0; i < 3; ++i) {
        const ipc_bytes payload(224, i);
        EXPECT_EQ(velm_ipc_broadcast_report(server.get(), payload.data(), payload.size()), 1);
    }
    for (std::uint8_t i = 0; i < 3; ++i) {
        const auto packet = ipc_receive(client);
        ASSERT_TRUE(packet.has_value());
        EXPECT_EQ(packet->size(), 240U);
        EXPECT_EQ(ipc_header(*packet).id, i + 1U);
        EXPECT_EQ(ipc_payload(*packet), ipc_bytes(224, i));
    }
}

TEST_F(Ipc, AReportWithNobodyConnectedSucceeds)
{
    EXPECT_EQ(velm_ipc_broadcast_report(server.get(), nullptr, 0), 1);
}

TEST_F(Ipc, AReportThatIsTooLongIsAFailure)
{
    const unique_fd client = connect();
    const ipc_bytes payload(225);
    EXPECT_EQ(velm_ipc_broadcast_report(server.get(), payload.data(), payload.size()), 0);
}

TEST_F(Ipc, AClientThatNeverReadsIsDroppedAtTheBoundAndTheOthersAreServed)
{
    const unique_fd stuck = connect();
    const unique_fd reading = connect();
    const ipc_bytes payload(224);
    int sends = 0;
    while (sends < 5000 &&
           velm_ipc_broadcast_report(server.get(), payload.data(), payload.size()) == 1) {
        ++sends;
        EXPECT_TRUE(ipc_receive(reading).has_value());
    }
    EXPECT_LT(sends, 5000) << "the backlog has no bound";
    EXPECT_TRUE(ipc_receive(reading).has_value()) << "one failure ended the round";
    EXPECT_EQ(velm_ipc_broadcast_report(server.get(), payload.data(), payload.size()), 1)
        << "the dropped one still counts";
    const captured_log log;
    velm_ipc_tick(server.get());
    EXPECT_EQ(log.count("Conn delete"), 1);
}

TEST_F(Ipc, AFloodOfRequestsThatIsNeverReadEndsThatConnectionOnly)
{
    handler_result = 0;
    const unique_fd flooding = connect();
    const captured_log log;
    std::uint32_t id = 0;
    EXPECT_TRUE(ipc_turn_until(base.get(), [&] {
        while (id < 20000 && ipc_send(flooding, ipc_request(id))) {
            ++id;
        }
        return log.contains("peer does not read");
    }));
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    EXPECT_TRUE(answer_to(client).has_value());
}

TEST_F(Ipc, OfOneConnectionAtMostOneThousandAndTwentyFourRequestsWait)
{
    const unique_fd client = connect();
    const unique_fd other = connect();
    for (std::uint32_t id = 1; id <= 1024; ++id) {
        ipc_send(client, ipc_request(id));
        ASSERT_TRUE(turn_until_taken(id));
    }
    EXPECT_FALSE(ipc_receive(client).has_value());
    ipc_send(client, ipc_request(1025));
    const auto packet = answer_to(client);
    ASSERT_TRUE(packet.has_value());
    EXPECT_EQ(ipc_header(*packet).id, 1025U);
    EXPECT_EQ(ipc_header(*packet).status, 1U);
    ipc_send(other, ipc_request(1));
    EXPECT_TRUE(turn_until_taken(1025)) << "another client pays for it";
    EXPECT_EQ(respond(1), 1);
    ipc_send(client, ipc_request(1026));
    EXPECT_TRUE(turn_until_taken(1026)) << "an answered request still counts";
}

TEST_F(Ipc, AClientThatAsksEverySecondIsNeverBusy)
{
    const unique_fd client = connect();
    for (std::uint32_t id = 1; id <= 1500; ++id) {
        ipc_send(client, ipc_request(id));
        ASSERT_TRUE(turn_until_taken(id));
        fake_clock_advance(1);
        velm_ipc_tick(server.get());
    }
    EXPECT_FALSE(ipc_receive(client).has_value());
    EXPECT_EQ(respond(900), 0) << "601 s old";
    EXPECT_EQ(respond(901), 1) << "600 s old";
}

TEST_F(Ipc, AConnectionThatWentAwayLeavesNothingBehind)
{
    unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ipc_send(client, ipc_request(2));
    ASSERT_TRUE(turn_until_taken(2));
    client.reset();
    ipc_turn(base.get());
    EXPECT_EQ(respond(1), 0) << "before the tick";
    const captured_log log;
    velm_ipc_tick(server.get());
    EXPECT_EQ(log.count("Conn delete"), 1);
    EXPECT_EQ(respond(2), 0) << "after the tick";
    velm_ipc_tick(server.get());
    EXPECT_EQ(log.count("Conn delete"), 1);
}

TEST_F(Ipc, AClientThatLeavesWithRequestsUnreadIsHandledAndForgotten)
{
    respond_at_once = false;
    unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    client.reset();
    EXPECT_TRUE(turn_until_taken(1));
    ipc_turn(base.get());
    velm_ipc_tick(server.get());
    EXPECT_EQ(respond(1), 0);
}

TEST_F(Ipc, AcceptingIsLoggedWithThePeersCredentials)
{
    const captured_log log;
    const unique_fd client = connect();
    EXPECT_TRUE(log.has("TRACE IPC - Accept new connection..."));
    EXPECT_TRUE(log.has("DEBUG IPC - accept_cb - pid: " + std::to_string(getpid()) +
                        " uid: " + std::to_string(getuid()) + " gid: " + std::to_string(getgid())));
    EXPECT_TRUE(log.has("INFO IPC - Connection accepted"));
}

/// The accepted end: a connected socket that bears the server's path.
bool is_accepted_socket(int fd, const std::string &path)
{
    sockaddr_un name{};
    socklen_t size = sizeof name;
    int listens = 0;
    socklen_t flag_size = sizeof listens;
    return getsockname(fd, reinterpret_cast<sockaddr *>(&name), &size) == 0 &&
           name.sun_path == path &&
           getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &flag_size) == 0 && listens == 0;
}

TEST_F(Ipc, AcceptedSocketsAreCloseOnExecAndNonBlocking)
{
    const unique_fd client = connect();
    int found = 0;
    for (int fd = 3; fd < 100; ++fd) {
        if (is_accepted_socket(fd, socket_path)) {
            ++found;
            EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
            EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
        }
    }
    EXPECT_EQ(found, 1);
}

TEST_F(Ipc, WhenAllPlacesAreTakenOneMoreGetsThatOfTheQuietest)
{
    const captured_log log;
    constexpr int limit = velm_ipc_connection_limit;
    std::vector<unique_fd> clients;
    for (int i = 0; i < limit; ++i) {
        clients.push_back(connect());
    }
    respond_at_once = true;
    ipc_send(clients[0], ipc_request(1)); // so the second is quiet for longer
    ASSERT_TRUE(answer_to(clients[0]).has_value());
    EXPECT_EQ(log.count("Connection accepted"), limit);
    const unique_fd newcomer = connect();
    EXPECT_EQ(answer_to(clients[1]), ipc_bytes{});
    EXPECT_TRUE(
        log.contains("WARN IPC - accept_cb - too many connections: " + std::to_string(limit)));
    ipc_send(newcomer, ipc_request(7));
    EXPECT_TRUE(answer_to(newcomer).has_value());
    for (std::size_t i = 2; i < clients.size(); ++i) {
        EXPECT_FALSE(ipc_receive(clients[i]).has_value()) << i << " pays as well";
    }
}

TEST_F(Ipc, AClientWithAnOpenRequestKeepsItsPlaceWhileOthersHaveNone)
{
    const unique_fd waiting = connect();
    ipc_send(waiting, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    std::vector<unique_fd> clients;
    for (std::size_t i = 0; i < 3 * velm_ipc_connection_limit; ++i) {
        clients.push_back(connect());
    }
    EXPECT_EQ(respond(1), 1);
    const auto packet = ipc_receive(waiting);
    ASSERT_TRUE(packet.has_value());
    EXPECT_EQ(ipc_header(*packet).id, 1U);
}

/// While it lives the process connects as somebody else.
class other_user {
  public:
    other_user() : rc{seteuid(65534)}
    {
    }
    ~other_user()
    {
        EXPECT_EQ(seteuid(0), 0);
    }
    other_user(const other_user &) = delete;
    other_user &operator=(const other_user &) = delete;

    const int rc;
};

TEST_F(Ipc, TheUserWithMostPlacesPaysThoughAnotherHasBeenQuietForLonger)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can connect as somebody else";
    }
    const unique_fd afc = connect();
    ASSERT_EQ(chmod(directory.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(socket_path.c_str(), 0666), 0);
    std::vector<unique_fd> greedy;
    {
        const other_user nobody;
        ASSERT_EQ(nobody.rc, 0);
        for (std::size_t i = 1; i < velm_ipc_connection_limit + 3; ++i) {
            greedy.push_back(connect());
        }
    }
    for (std::size_t i = 0; i < greedy.size(); ++i) {
        EXPECT_EQ(ipc_receive(greedy[i]).has_value(), i < 3) << i;
    }
    ipc_send(afc, ipc_request(1));
    EXPECT_TRUE(turn_until_taken(1)) << "it lost its place";
}

TEST_F(Ipc, WhatHasClosedTakesNoPlaceAlsoBeforeTheNextTick)
{
    std::vector<unique_fd> clients;
    for (std::size_t i = 0; i < velm_ipc_connection_limit; ++i) {
        clients.push_back(connect());
    }
    clients.back().reset();
    ipc_turn(base.get());
    const captured_log log;
    const unique_fd next = connect();
    EXPECT_FALSE(log.contains("too many connections"));
    ipc_send(next, ipc_request(8));
    EXPECT_TRUE(turn_until_taken(1));
    EXPECT_FALSE(ipc_receive(clients.front()).has_value());
}

TEST_F(Ipc, IsDrainedWhileNoPacketWaitsAndSaysWhenThatIsSoAgain)
{
    static int times = 0;
    times = 0;
    velm_ipc_set_drained_handler(server.get(), [](velm_ipc *drained) {
        ++times;
        EXPECT_TRUE(velm_ipc_is_drained(drained));
    });
    const unique_fd slow = connect();
    unique_fd leaving = connect();
    const ipc_bytes payload(224);
    int sent = 0;
    while (sent < 5000 && velm_ipc_is_drained(server.get())) {
        velm_ipc_broadcast_report(server.get(), payload.data(), payload.size());
        ++sent;
    }
    ASSERT_LT(sent, 5000) << "the kernel took all";
    int received = 0;
    EXPECT_TRUE(ipc_turn_until(base.get(), [&] {
        received += ipc_receive(slow).has_value() ? 1 : 0;
        return received == sent;
    }));
    EXPECT_FALSE(velm_ipc_is_drained(server.get())) << "the other one has read nothing";
    EXPECT_EQ(times, 0);
    leaving.reset();
    EXPECT_TRUE(ipc_turn_until(base.get(), [] { return times > 0; }));
    EXPECT_TRUE(velm_ipc_is_drained(server.get()));
}

TEST_F(Ipc, OutOfDescriptorsItNeitherSpinsNorDiesAndServesAgain)
{
    const unique_fd waiting = ipc_connect(socket_path);
    ASSERT_TRUE(waiting);
    const captured_log log;
    {
        const no_descriptors none{3};
        ipc_turn(base.get(), 200);
    }
    EXPECT_EQ(log.count("ERROR IPC - Listener error"), 1) << "the loop spins";
    EXPECT_TRUE(ipc_turn_until(base.get(), [&log] { return log.contains("Connection accepted"); }));
    ipc_send(waiting, ipc_request(1));
    EXPECT_TRUE(turn_until_taken(1));
}

TEST_F(Ipc, DestroyingItClosesEveryConnectionAndTheListener)
{
    const unique_fd client = connect();
    ipc_send(client, ipc_request(1));
    ASSERT_TRUE(turn_until_taken(1));
    server.reset();
    EXPECT_EQ(ipc_receive(client), ipc_bytes{});
    EXPECT_FALSE(ipc_connect(socket_path));
    EXPECT_EQ(event_base_get_num_events(base.get(), EVENT_BASE_COUNT_ADDED), 0);
}

TEST_F(Ipc, AnotherServerAtTheSamePathTakesOver)
{
    server.reset();
    server = velm_ipc_create(base.get(), nullptr, socket_path.c_str());
    EXPECT_NE(server, nullptr);
    connect();
}

std::string path_of_length(const std::string &directory, std::size_t length)
{
    return directory + "/" + std::string(length - directory.size() - 1, 's');
}

TEST_F(Ipc, ASocketPathHasAtMostOneHundredAndSevenCharacters)
{
    const std::string longest = path_of_length(directory.path(), 107);
    EXPECT_NE(velm_ipc_create(base.get(), nullptr, longest.c_str()), nullptr);
    const std::string too_long = path_of_length(directory.path(), 108);
    EXPECT_EQ(velm_ipc_create(base.get(), nullptr, too_long.c_str()), nullptr);
    EXPECT_EQ(velm_ipc_create(base.get(), too_long.c_str(), nullptr), nullptr);
}

TEST_F(Ipc, APathOfTheLargestLengthIsReachable)
{
    const std::string longest = path_of_length(directory.path(), 107);
    const velm_ipc_ptr other = velm_ipc_create(base.get(), nullptr, longest.c_str());
    EXPECT_TRUE(ipc_connect(longest));
}

TEST_F(Ipc, ASocketThatCannotBeSetUpIsLogged)
{
    std::ofstream{directory.path() + "/file"} << "x";
    const captured_log log;
    const std::string path = directory.path() + "/file/socket";
    EXPECT_EQ(velm_ipc_create(base.get(), nullptr, path.c_str()), nullptr);
    EXPECT_TRUE(log.has("ERROR IPC - Cannot create parent dir " + directory.path() + "/file"));
    EXPECT_TRUE(log.has("ERROR IPC - Cannot create listener"));
    EXPECT_TRUE(log.has("ERROR IPC - server_listen - " + path + ": Not a directory"));
}

class IpcClientMode : public Ipc {
  protected:
    IpcClientMode() : client_path{directory.path() + "/elsewhere"}
    {
    }

    unique_fd listen_there()
    {
        unique_fd listener{socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        client_path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener.get(), 5), 0);
        return listener;
    }

    static unique_fd accept_from(const unique_fd &listener)
    {
        return unique_fd{accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)};
    }

    const std::string client_path;
};

TEST_F(IpcClientMode, ConnectsAtOnceWhenTheServerIsThere)
{
    const unique_fd listener = listen_there();
    const captured_log log;
    const velm_ipc_ptr client = velm_ipc_create(base.get(), client_path.c_str(), nullptr);
    ASSERT_NE(client, nullptr);
    EXPECT_TRUE(log.has("TRACE IPC - Connected"));
    EXPECT_TRUE(accept_from(listener));
}

TEST_F(IpcClientMode, KeepsTryingUntilTheServerComesAndConnectsOnce)
{
    const velm_ipc_ptr client = velm_ipc_create(base.get(), client_path.c_str(), nullptr);
    ASSERT_NE(client, nullptr);
    velm_ipc_tick(client.get());
    const unique_fd listener = listen_there();
    velm_ipc_tick(client.get());
    EXPECT_TRUE(accept_from(listener));
    velm_ipc_tick(client.get());
    EXPECT_FALSE(accept_from(listener));
}

TEST_F(IpcClientMode, TheTimerRunsUntilTheServerCameAndAgainWhenItLeft)
{
    const velm_ipc_ptr client = velm_ipc_create(base.get(), client_path.c_str(), nullptr);
    ASSERT_NE(client, nullptr);
    EXPECT_TRUE(timer_is_set(base));
    const unique_fd listener = listen_there();
    velm_ipc_tick(client.get());
    EXPECT_FALSE(timer_is_set(base));
    accept_from(listener).reset();
    EXPECT_TRUE(ipc_turn_until(base.get(), [this] { return timer_is_set(base); }));
}

TEST_F(IpcClientMode, ReconnectsAfterTheServerLeft)
{
    const unique_fd listener = listen_there();
    const velm_ipc_ptr client = velm_ipc_create(base.get(), client_path.c_str(), nullptr);
    accept_from(listener).reset();
    ipc_turn(base.get());
    velm_ipc_tick(client.get());
    const unique_fd again = accept_from(listener);
    ASSERT_TRUE(again);
    EXPECT_EQ(velm_ipc_broadcast_report(client.get(), nullptr, 0), 1);
    EXPECT_TRUE(ipc_receive(again).has_value());
}

} // namespace
