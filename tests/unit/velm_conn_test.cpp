#include "velm_conn.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <string>

#include "fakes/captured_log.h"
#include "fakes/emulated.h"
#include "fakes/ipc_peer.h"
#include "handles/libevent.h"
#include "ipc/places.h"
#include "velm_ipc_cmd.h"

namespace {

bool poll_is_interrupted = false;
time_t seconds_ahead = 0; // of the clock that patience is measured by

} // namespace

/// Stands in for the C library's, which the test moves. The loop's own clock is another.
extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    const auto rc = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (clock == CLOCK_MONOTONIC) {
        now->tv_sec += seconds_ahead;
    }
    return rc;
}

/// Stands in for the C library's, which a signal interrupts even when it need not wait.
extern "C" int poll(pollfd *descriptors, nfds_t count, int)
{
    if (poll_is_interrupted) {
        errno = EINTR;
        return -1;
    }
    constexpr timespec at_once{};
    return ppoll(descriptors, count, &at_once, nullptr);
}

namespace {

using std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr std::uint32_t laborious = 7777; // the id of a request that takes some time
std::chrono::milliseconds labour{};
std::vector<std::uint32_t> handled;

int note_frame(velm_conn *, std::uint32_t id, std::uint16_t, const void *, std::size_t, std::time_t)
{
    const auto end = steady_clock::now() + labour;
    while (id == laborious && steady_clock::now() < end) {
    }
    handled.push_back(id);
    return 1;
}

/// That many requests in one packet, of which the first takes some time.
ipc_bytes laborious_packet(int count)
{
    ipc_bytes packet = ipc_request(laborious);
    for (int i = 1; i < count; ++i) {
        const ipc_bytes more = ipc_request(1);
        packet.insert(packet.end(), more.begin(), more.end());
    }
    return packet;
}

class Conn : public testing::Test {
  protected:
    Conn()
    {
        handled.clear();
        labour = {};
        seconds_ahead = 0;
        int pair[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair), 0);
        peer.reset(pair[0]);
        conn = velm_conn_create(base.get(), unique_fd{pair[1]}, nullptr, velm_ipc_cmd_read,
                                note_frame);
    }

    bool turn_until_closed()
    {
        return ipc_turn_until(base.get(), [this] { return velm_conn_is_closed(conn.get()); });
    }

    bool turn_until_handled(std::size_t count)
    {
        return ipc_turn_until(base.get(), [count] { return handled.size() >= count; });
    }

    /// Writes numbered packets until one must wait, and returns how many went out at once. The
    /// kernel takes a bounded number, far below the bound of this loop.
    std::uint32_t fill_socket()
    {
        std::uint32_t sent = 0;
        while (sent < 10000 && event_base_get_num_events(base.get(), EVENT_BASE_COUNT_ADDED) == 1) {
            write_number(sent++);
        }
        return sent - 1;
    }

    bool write_number(std::uint32_t number)
    {
        return velm_conn_write(conn.get(), ipc_frame(40960, number, ipc_bytes(224)));
    }

    /// How long the packet that waits may go on waiting.
    double seconds_left()
    {
        timeval now{};
        event_base_gettimeofday_cached(base.get(), &now);
        timeval end{};
        event *const waiting = waiting_event();
        if (waiting == nullptr) {
            return -1;
        }
        event_pending(waiting, EV_TIMEOUT, &end);
        timeval left{};
        evutil_timersub(&end, &now, &left);
        return static_cast<double>(left.tv_sec) + static_cast<double>(left.tv_usec) / 1e6;
    }

    /// The peer takes packets until none waits any more, and no more than needed.
    bool read_until_drained()
    {
        return ipc_turn_until(base.get(), [this] {
            return !velm_conn_is_waiting(conn.get()) || !ipc_receive(peer).has_value();
        });
    }

    /// The event that waits for the peer to read, the only one here with a time-out; null without.
    event *waiting_event()
    {
        event *found = nullptr;
        event_base_foreach_event(
            base.get(),
            [](const event_base *, const event *candidate, void *context) {
                if (event_pending(candidate, EV_TIMEOUT, nullptr) != 0) {
                    *static_cast<event **>(context) = const_cast<event *>(candidate);
                }
                return 0;
            },
            &found);
        return found;
    }

    const event_base_ptr base{event_base_new()};
    unique_fd peer;
    velm_conn_ptr conn;
};

TEST_F(Conn, WhatIsWrittenLeavesAtOnceAsAPacketOfItsOwn)
{
    for (std::uint32_t number = 0; number < 3; ++number) {
        EXPECT_TRUE(write_number(number));
    }
    for (std::uint32_t number = 0; number < 3; ++number) {
        const auto packet = ipc_receive(peer);
        ASSERT_TRUE(packet.has_value());
        EXPECT_EQ(packet->size(), 240U);
        EXPECT_EQ(ipc_header(*packet).id, number);
    }
    EXPECT_FALSE(ipc_receive(peer).has_value());
}

TEST_F(Conn, PacketsThatWaitedKeepTheirOrderAndTheirBounds)
{
    std::uint32_t count = fill_socket() + 1; // the last of these waits
    for (int more = 0; more < 40; ++more) {
        EXPECT_TRUE(write_number(count++));
    }
    std::uint32_t expected = 0;
    EXPECT_TRUE(ipc_turn_until(base.get(), [&] {
        while (const auto packet = ipc_receive(peer)) {
            EXPECT_EQ(packet->size(), 240U);
            EXPECT_EQ(ipc_header(*packet).id, expected++);
        }
        return expected == count;
    }));
    EXPECT_FALSE(velm_conn_is_closed(conn.get()));
}

TEST_F(Conn, WhoWantsToKnowIsToldOnceThatItIsClosed)
{
    static int times = 0;
    static bool was_closed = false;
    times = 0;
    velm_conn_set_closed_handler(conn.get(), [](velm_conn *closed) {
        ++times;
        was_closed = velm_conn_is_closed(closed);
    });
    peer.reset();
    ASSERT_TRUE(turn_until_closed());
    EXPECT_FALSE(write_number(0));
    EXPECT_EQ(times, 1);
    EXPECT_TRUE(was_closed);
}

TEST_F(Conn, SixtyFourPacketsMayWaitAndOneMoreDropsAClientThatNeverReads)
{
    const captured_log log;
    fill_socket(); // one packet waits now
    for (std::size_t waiting = 1; waiting < velm_conn_queue_limit; ++waiting) {
        ASSERT_TRUE(write_number(0)) << waiting;
    }
    EXPECT_FALSE(velm_conn_is_closed(conn.get()));
    EXPECT_FALSE(write_number(0));
    EXPECT_TRUE(velm_conn_is_closed(conn.get()));
    EXPECT_TRUE(log.has("ERROR IPC_CONN - Write error"));
    EXPECT_TRUE(log.has("ERROR IPC_CONN - Connection error: peer does not read"));
    EXPECT_EQ(event_base_get_num_events(base.get(), EVENT_BASE_COUNT_ADDED), 0);
}

TEST_F(Conn, WhileAPacketWaitsItsTimeIsLimitedToFifteenSeconds)
{
    EXPECT_EQ(waiting_event(), nullptr);
    fill_socket();
    ASSERT_NE(waiting_event(), nullptr);
    timeval now{};
    gettimeofday(&now, nullptr);
    timeval due{};
    event_pending(waiting_event(), EV_TIMEOUT, &due);
    EXPECT_NEAR(static_cast<double>(due.tv_sec - now.tv_sec), 15.0, 2.0);
}

TEST_F(Conn, APeerThatReadsAPacketNowAndThenGetsNoNewTimeForEach)
{
    fill_socket();
    seconds_ahead += 14;
    ASSERT_TRUE(read_until_drained());
    fill_socket();
    EXPECT_LT(seconds_left(), 8);
    seconds_ahead += 12;
    ASSERT_TRUE(read_until_drained());
    const captured_log log;
    fill_socket();
    EXPECT_TRUE(turn_until_closed());
    EXPECT_TRUE(log.has("ERROR IPC_CONN - Write timeout"));
}

TEST_F(Conn, APeerThatReadsSteadilyIsWaitedForWithoutEnd)
{
    fill_socket();
    for (int pause = 0; pause < 30; ++pause) {
        ++seconds_ahead; // in which it reads what the kernel held
        ASSERT_TRUE(read_until_drained());
        fill_socket();
    }
    EXPECT_NEAR(seconds_left(), 15, 1.5);
}

TEST_F(Conn, APeerThatHasReadEverythingHasAllItsTimeAgain)
{
    fill_socket();
    seconds_ahead += 14;
    ASSERT_TRUE(read_until_drained());
    while (ipc_receive(peer).has_value()) {
    }
    fill_socket();
    EXPECT_NEAR(seconds_left(), 15, 1.5);
}

TEST_F(Conn, WhoWaitsForThePeerIsToldWhenTheLastPacketHasLeft)
{
    static int times = 0;
    times = 0;
    velm_conn_set_drained_handler(conn.get(), [](velm_conn *drained) {
        ++times;
        EXPECT_FALSE(velm_conn_is_waiting(drained));
    });
    EXPECT_FALSE(velm_conn_is_waiting(conn.get()));
    fill_socket();
    EXPECT_TRUE(velm_conn_is_waiting(conn.get()));
    ipc_turn(base.get());
    EXPECT_EQ(times, 0);
    ASSERT_TRUE(read_until_drained());
    EXPECT_EQ(times, 1);
}

TEST_F(Conn, EndsWhenItIsToldTo)
{
    static int times = 0;
    times = 0;
    velm_conn_set_closed_handler(conn.get(), [](velm_conn *) { ++times; });
    fill_socket();
    velm_conn_close(conn.get());
    velm_conn_close(conn.get());
    EXPECT_TRUE(velm_conn_is_closed(conn.get()));
    EXPECT_FALSE(velm_conn_is_waiting(conn.get()));
    EXPECT_EQ(times, 1);
}

#ifdef VELM_SANITIZED
constexpr bool memory_is_measurable = false;
#else
constexpr bool memory_is_measurable = true;
#endif

long resident_pages()
{
    long all = 0;
    long resident = 0;
    std::ifstream{"/proc/self/statm"} >> all >> resident;
    return resident;
}

TEST_F(Conn, WhatALongPacketTookIsGivenBack)
{
    if (!memory_is_measurable) {
        GTEST_SKIP() << "the sanitizer keeps what is freed";
    }
    if (is_emulated()) {
        GTEST_SKIP() << "the emulator's memory is measured as well";
    }
    const ipc_bytes packet = ipc_frame(4096, 1, ipc_bytes(65535, 0xee)); // skipped
    ipc_bytes long_packet;
    for (int i = 0; i < 2; ++i) {
        long_packet.insert(long_packet.end(), packet.begin(), packet.end());
    }
    const long before = resident_pages();
    const ipc_bytes request = ipc_request(5);
    long_packet.insert(long_packet.end(), request.begin(), request.end());
    ASSERT_TRUE(ipc_send(peer, long_packet));
    ASSERT_TRUE(turn_until_handled(1));
    EXPECT_LT((resident_pages() - before) * sysconf(_SC_PAGESIZE), 64 * 1024);
}

TEST_F(Conn, AWriteTimeOutEndsTheConnection)
{
    fill_socket();
    const captured_log log;
    ASSERT_NE(waiting_event(), nullptr);
    event_active(waiting_event(), EV_TIMEOUT, 0);
    EXPECT_TRUE(turn_until_closed());
    EXPECT_TRUE(log.has("ERROR IPC_CONN - Write timeout"));
}

TEST_F(Conn, APeerThatClosesMarksItClosedAndGivesTheSocketBack)
{
    const captured_log log;
    peer.reset();
    EXPECT_TRUE(turn_until_closed());
    EXPECT_TRUE(log.has("TRACE IPC_CONN - Connection closed"));
    EXPECT_EQ(event_base_get_num_events(base.get(), EVENT_BASE_COUNT_ADDED), 0);
    EXPECT_FALSE(write_number(1));
}

TEST_F(Conn, TheEndIsReportedOnceAlsoWhenWritingAndReadingFailTogether)
{
    const captured_log log;
    peer.reset();
    EXPECT_FALSE(write_number(1));
    EXPECT_FALSE(write_number(2));
    ipc_turn(base.get());
    EXPECT_EQ(log.count("Write error"), 1);
    EXPECT_EQ(log.count("Connection error: Broken pipe"), 1);
    EXPECT_EQ(log.count("Connection closed"), 0);
}

TEST_F(Conn, AReadErrorIsReportedWithItsText)
{
    const captured_log log;
    write_number(1); // the peer leaves without reading it, which resets the connection
    peer.reset();
    EXPECT_TRUE(turn_until_closed());
    EXPECT_TRUE(log.has("ERROR IPC_CONN - Read error"));
    EXPECT_TRUE(log.has("ERROR IPC_CONN - Connection error: Connection reset by peer"));
}

TEST_F(Conn, RequestsSentBeforeThePeerLeftAreStillHandled)
{
    ipc_send(peer, ipc_request(1));
    ipc_send(peer, ipc_request(2));
    peer.reset();
    EXPECT_TRUE(turn_until_closed());
    EXPECT_EQ(handled, (std::vector<std::uint32_t>{1, 2}));
}

TEST_F(Conn, AnEmptyPacketIsNoEndOfTheStream)
{
    ASSERT_TRUE(ipc_send(peer, {}));
    ASSERT_TRUE(ipc_send(peer, {}));
    ipc_turn(base.get());
    ASSERT_TRUE(ipc_send(peer, ipc_request(3)));
    EXPECT_TRUE(turn_until_handled(1));
    EXPECT_FALSE(velm_conn_is_closed(conn.get()));
}

TEST_F(Conn, ASignalWhileAnEmptyPacketIsReadEndsNothing)
{
    poll_is_interrupted = true;
    ASSERT_TRUE(ipc_send(peer, {}));
    ipc_turn(base.get());
    poll_is_interrupted = false;
    EXPECT_FALSE(velm_conn_is_closed(conn.get()));
    ASSERT_TRUE(ipc_send(peer, ipc_request(8)));
    EXPECT_TRUE(turn_until_handled(1));
}

TEST_F(Conn, TheEndOfAPeerIsReadAgainWhenASignalHidIt)
{
    poll_is_interrupted = true;
    peer.reset();
    ipc_turn(base.get());
    poll_is_interrupted = false;
    EXPECT_TRUE(turn_until_closed());
}

TEST_F(Conn, AnEmptyPacketBeforeALastRequestOfALeavingPeerLosesNothing)
{
    ipc_send(peer, {});
    ipc_send(peer, ipc_request(3));
    peer.reset();
    EXPECT_TRUE(turn_until_closed());
    EXPECT_EQ(handled, std::vector<std::uint32_t>{3});
}

TEST_F(Conn, TwentySixRequestsInOnePacketAreAllHandled)
{
    ipc_bytes packet;
    for (std::uint32_t id = 1; id <= 26; ++id) {
        const ipc_bytes request = ipc_request(id);
        packet.insert(packet.end(), request.begin(), request.end());
    }
    ASSERT_TRUE(ipc_send(peer, packet));
    EXPECT_TRUE(turn_until_handled(26));
    EXPECT_EQ(handled.back(), 26U);
}

TEST_F(Conn, ALongPacketIsReadWhole)
{
    ipc_bytes packet = ipc_frame(4096, 1, ipc_bytes(65535, 0xee)); // skipped
    const ipc_bytes request = ipc_request(2);
    packet.insert(packet.end(), request.begin(), request.end());
    ASSERT_TRUE(ipc_send(peer, packet));
    EXPECT_TRUE(turn_until_handled(1));
    EXPECT_EQ(handled, std::vector<std::uint32_t>{2});
}

TEST_F(Conn, TheParserGetsPiecesOfOneThousandAndTwentyFourBytes)
{
    ipc_bytes packet(1024, 0xff); // a type of its own, which costs this piece and no more
    const ipc_bytes request = ipc_request(2);
    packet.insert(packet.end(), request.begin(), request.end());
    ASSERT_TRUE(ipc_send(peer, packet));
    EXPECT_TRUE(turn_until_handled(1));
    EXPECT_EQ(handled, std::vector<std::uint32_t>{2});
}

TEST_F(Conn, APacketTooLongToReadWholeEndsTheConnectionInsteadOfLosingBytes)
{
    const int size = 1 << 20;
    if (setsockopt(peer.get(), SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0) {
        GTEST_SKIP() << "only a privileged client can send packets of this length";
    }
    const captured_log log;
    ASSERT_TRUE(ipc_send(peer, ipc_bytes(2 * 212992 + 1)));
    EXPECT_TRUE(turn_until_closed());
    EXPECT_TRUE(log.has("ERROR IPC_CONN - Unexpected error in read cb"));
}

TEST_F(Conn, ARequestInTwoPacketsIsHandledOnce)
{
    const ipc_bytes request = ipc_request(4);
    ipc_send(peer, ipc_bytes(request.begin(), request.begin() + 78));
    ipc_turn(base.get());
    EXPECT_TRUE(handled.empty());
    ipc_send(peer, ipc_bytes(request.begin() + 78, request.end()));
    EXPECT_TRUE(turn_until_handled(1));
    EXPECT_EQ(handled, std::vector<std::uint32_t>{4});
}

TEST_F(Conn, OnePacketIsReadALoopTurn)
{
    for (std::uint32_t id = 1; id <= 3; ++id) {
        ipc_send(peer, ipc_request(id));
    }
    event_base_loop(base.get(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    EXPECT_EQ(handled.size(), 1U);
}

TEST_F(Conn, AfterALongPacketItsSenderRestsAndTheOthersAreServed)
{
    int pair[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair), 0);
    const unique_fd other{pair[0]};
    const velm_conn_ptr served =
        velm_conn_create(base.get(), unique_fd{pair[1]}, nullptr, velm_ipc_cmd_read, note_frame);
    labour = 3ms;
    const auto begin = steady_clock::now();
    ipc_send(peer, laborious_packet(27)); // 4212 bytes
    ASSERT_TRUE(turn_until_handled(27));
    ipc_send(peer, ipc_request(2));
    ipc_send(other, ipc_request(3));
    ASSERT_TRUE(turn_until_handled(28));
    EXPECT_EQ(handled.back(), 3U);
    ASSERT_TRUE(turn_until_handled(29));
    EXPECT_EQ(handled.back(), 2U);
    // The loop counts from where the turn began, by a clock of four milliseconds.
    EXPECT_GE(steady_clock::now() - begin, (2 * velm_ipc_connection_limit - 4) * labour);
}

TEST_F(Conn, AfterAShortPacketItsSenderIsReadOnTheNextTurn)
{
    labour = 3ms;
    ipc_send(peer, laborious_packet(26)); // 4056 bytes
    ipc_send(peer, ipc_request(2));
    event_base_loop(base.get(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    event_base_loop(base.get(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    EXPECT_EQ(handled.size(), 27U);
}

TEST_F(Conn, ARestLastsTwoSecondsAtMost)
{
    labour = 50ms;
    ipc_send(peer, laborious_packet(27));
    ASSERT_TRUE(turn_until_handled(27));
    timeval now{};
    event_base_gettimeofday_cached(base.get(), &now);
    timeval end{};
    ASSERT_NE(waiting_event(), nullptr);
    event_pending(waiting_event(), EV_TIMEOUT, &end);
    timeval left{};
    evutil_timersub(&end, &now, &left);
    const auto seconds = static_cast<double>(left.tv_sec) + static_cast<double>(left.tv_usec) / 1e6;
    EXPECT_NEAR(seconds, 2, 0.5);
}

TEST_F(Conn, APeerThatLeavesWhileItRestsIsForgottenAfterwards)
{
    labour = 1ms;
    ipc_send(peer, laborious_packet(27));
    ASSERT_TRUE(turn_until_handled(27));
    peer.reset();
    EXPECT_TRUE(turn_until_closed());
    conn.reset();
    EXPECT_EQ(event_base_get_num_events(base.get(), EVENT_BASE_COUNT_ADDED), 0);
}

TEST_F(Conn, MayBeDestroyedWhileItsPeerRests)
{
    labour = 50ms;
    ipc_send(peer, laborious_packet(27));
    ASSERT_TRUE(turn_until_handled(27));
    conn.reset();
    EXPECT_EQ(event_base_get_num_events(base.get(), EVENT_BASE_COUNT_ADDED), 0);
}

TEST_F(Conn, DestroyingClosesTheSocket)
{
    const captured_log log;
    conn.reset();
    EXPECT_EQ(ipc_receive(peer), ipc_bytes{});
    EXPECT_TRUE(log.has("TRACE IPC_CONN - Conn delete"));
}

TEST_F(Conn, DestroyingNothingIsOnlyLogged)
{
    const captured_log log;
    velm_conn_destroy(nullptr);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"TRACE IPC_CONN - Conn already deleted"});
}

TEST_F(Conn, ADescriptorThatCannotBeWatchedMakesNoConnection)
{
    const captured_log log;
    unique_fd file{open("/proc/self/exe", O_RDONLY | O_CLOEXEC)};
    const int number = file.get();
    EXPECT_EQ(velm_conn_create(base.get(), std::move(file), nullptr, velm_ipc_cmd_read, note_frame),
              nullptr);
    EXPECT_TRUE(log.has("ERROR IPC_CONN - Cannot enable event read/write"));
    EXPECT_EQ(fcntl(number, F_GETFD), -1) << "the descriptor leaked";
}

TEST_F(Conn, HandsTheServerBack)
{
    EXPECT_EQ(velm_conn_server(conn.get()), nullptr);
}

} // namespace
