#include "lan/wait.h"

#include <gtest/gtest.h>

#include <vector>

#include "fakes/emulated.h"

namespace {

int attempts;

void attempt(evutil_socket_t, short, void *) noexcept
{
    ++attempts;
}

class LanWait : public testing::Test {
  protected:
    LanWait()
    {
        attempts = 0;
    }

    /// How far away the next attempt is, to the millisecond; -1 without one.
    [[nodiscard]] long next_ms() const
    {
        long found = -1;
        event_base_foreach_event(
            base.get(),
            [](const event_base *at, const event *one, void *result) {
                timeval due{}, now{}, left{};
                event_pending(one, EV_TIMEOUT, &due);
                event_base_gettimeofday_cached(const_cast<event_base *>(at), &now);
                evutil_timersub(&due, &now, &left);
                *static_cast<long *>(result) = left.tv_sec * 1000 + (left.tv_usec + 999) / 1000;
                return 0;
            },
            &found);
        return found;
    }

    const event_base_ptr base{event_base_new()};
    velm_lan_wait wait;
};

/// libevent tells by the wall clock when a timer is due: what goes by between a look at the steady clock
/// and one at the wall clock is added. That is no millisecond, but an emulator is slow.
const long between_clocks = is_emulated() ? 20 : 0;

TEST_F(LanWait, AttemptsBecomeRareAndNeverStop)
{
    for (const long expected : {1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 1000, 1000}) {
        wait.again(base.get(), attempt);
        EXPECT_LE(next_ms(), expected + between_clocks);
        EXPECT_GE(next_ms(), expected * 9 / 10 - 20); // this machine may be busy
    }
}

TEST_F(LanWait, AnAttemptIsMadeWhenTheDelayIsOver)
{
    wait.again(base.get(), attempt);
    EXPECT_EQ(attempts, 0);
    event_base_loop(base.get(), EVLOOP_ONCE);
    EXPECT_EQ(attempts, 1);
    EXPECT_TRUE(wait.is_waiting()); // until it is told that the attempt succeeded
}

TEST_F(LanWait, BeginsWithTheShortestDelayAfterARestart)
{
    for (int i = 0; i < 12; ++i) {
        wait.again(base.get(), attempt);
    }
    wait.restart();
    wait.again(base.get(), attempt);
    EXPECT_LE(next_ms(), 1 + between_clocks);
}

TEST_F(LanWait, LeavesNoTimerAtItsEnd)
{
    EXPECT_FALSE(wait.is_waiting());
    wait.again(base.get(), attempt);
    wait.end();
    EXPECT_FALSE(wait.is_waiting());
    EXPECT_EQ(next_ms(), -1);
    wait.again(base.get(), attempt);
    EXPECT_LE(next_ms(), 1 + between_clocks);
}

} // namespace
