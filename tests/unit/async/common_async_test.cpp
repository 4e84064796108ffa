#include "async/common_async.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "handles/libevent.h"

namespace {

std::vector<int> ran;

void note(void *number, short, common_async_context *)
{
    ran.push_back(static_cast<int>(reinterpret_cast<intptr_t>(number)));
}

void *number(int value)
{
    return reinterpret_cast<void *>(static_cast<intptr_t>(value));
}

void note_three_steps(void *value, short events, common_async_context *context)
{
    note(value, events, context);
    const int step = ran.back();
    if (step % 10 < 3) {
        common_async_action_call(note_three_steps, number(step + 1));
    }
}

void queue_long_and_step(void *value, short events, common_async_context *context)
{
    note(value, events, context);
    common_async_action_call_long(note, number(3));
    common_async_action_call(note, number(2));
}

void queue_itself(void *value, short events, common_async_context *context)
{
    note(value, events, context);
    common_async_action_call(queue_itself, value);
}

class Async : public testing::Test {
  protected:
    Async()
    {
        ran.clear();
        common_async_set_event_base(base);
        common_async_init();
    }

    /// Turns the loop until `count` actions have run, or nothing more happens.
    void run_until(std::size_t count)
    {
        for (std::size_t turn = 0; turn < 10 * count + 10 && ran.size() < count; ++turn) {
            event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
        }
    }

    // Outlives the module's events, as in the daemon.
    static inline event_base *const base = event_base_new();
};

TEST_F(Async, TwoActionCallsRunInTheOrderTheyWereMadeAndNotInsideTheCall)
{
    common_async_action_call(note, number(1));
    common_async_action_call(note, number(2));
    EXPECT_TRUE(ran.empty());
    run_until(2);
    EXPECT_EQ(ran, (std::vector{1, 2}));
}

TEST_F(Async, OneActionRunsALoopTurn)
{
    common_async_action_call(note, number(1));
    common_async_action_call(note, number(2));
    event_base_loop(base, EVLOOP_ONCE);
    EXPECT_EQ(ran, std::vector{1});
}

TEST_F(Async, TheNextStepOfAnActionThatIsAloneRunsInTheSameTurn)
{
    common_async_action_call(note_three_steps, number(11));
    event_base_loop(base, EVLOOP_ONCE);
    EXPECT_EQ(ran, (std::vector{11, 12, 13}));
}

TEST_F(Async, NextStepsRunOneATurnWhileAnotherActionWaits)
{
    common_async_action_call(note_three_steps, number(11));
    common_async_action_call(note_three_steps, number(21));
    event_base_loop(base, EVLOOP_ONCE);
    EXPECT_EQ(ran, std::vector{11});
    event_base_loop(base, EVLOOP_ONCE);
    EXPECT_EQ(ran, (std::vector{11, 21}));
}

TEST_F(Async, ANextStepWaitsATurnWhenALongActionWaitsToo)
{
    common_async_action_call(queue_long_and_step, number(1));
    event_base_loop(base, EVLOOP_ONCE);
    EXPECT_EQ(ran, std::vector{1});
    run_until(3);
    EXPECT_EQ(ran, (std::vector{1, 2, 3}));
}

void note_event(evutil_socket_t, short, void *value) noexcept
{
    note(value, 0, nullptr);
}

TEST_F(Async, ANextStepWaitsATurnWhenTheLoopHasOtherEvents)
{
    const event_ptr other{event_new(base, -1, EV_READ, note_event, number(100))};
    common_async_action_call(note, number(1));
    run_until(1); // from now on the loop turns without the pipe

    common_async_action_call(note_three_steps, number(11));
    event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
    EXPECT_EQ(ran, (std::vector{1, 11, 12, 13})) << "alone";

    common_async_action_call(
        [](void *data, short, common_async_context *) {
            ran.push_back(2);
            event_active(static_cast<event *>(data), EV_READ, 0);
            common_async_action_call(note, number(3));
        },
        other.get());
    event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
    EXPECT_EQ(ran, (std::vector{1, 11, 12, 13, 2, 100})) << "the other comes first";
    run_until(7);
    EXPECT_EQ(ran.back(), 3);
}

void call_two(evutil_socket_t, short, void *) noexcept
{
    ran.push_back(0);
    common_async_action_call(note, number(1));
    common_async_action_call(note, number(2));
}

TEST_F(Async, TheFirstActionOfACallbackRunsBehindTheOtherEventsOfItsTurn)
{
    const event_ptr caller{event_new(base, -1, EV_READ, call_two, nullptr)};
    const event_ptr other{event_new(base, -1, EV_READ, note_event, number(100))};
    common_async_action_call(note, number(7));
    run_until(1); // from now on the loop turns without the pipe

    event_active(caller.get(), EV_READ, 1);
    event_active(other.get(), EV_READ, 1);
    event_base_loop(base, EVLOOP_ONCE);
    EXPECT_EQ(ran, (std::vector{7, 0, 100, 1}));
    event_base_loop(base, EVLOOP_ONCE);
    EXPECT_EQ(ran.back(), 2);
}

void call_long(evutil_socket_t, short, void *) noexcept
{
    common_async_action_call_long(note, number(1));
}

TEST_F(Async, ALongActionOfACallbackRunsOnALaterTurn)
{
    const event_ptr caller{event_new(base, -1, EV_READ, call_long, nullptr)};
    common_async_action_call(note, number(7));
    run_until(1);

    event_active(caller.get(), EV_READ, 1);
    event_base_loop(base, EVLOOP_ONCE);
    EXPECT_EQ(ran, std::vector{7});
    event_base_loop(base, EVLOOP_ONCE);
    EXPECT_EQ(ran, (std::vector{7, 1}));
}

TEST_F(Async, AnActionThatQueuesItselfForEverLeavesTurnsToTheOthers)
{
    common_async_action_call(queue_itself, number(0));
    event_base_loop(base, EVLOOP_ONCE);
    EXPECT_EQ(ran.size(), 4U);
    event_base_loop(base, EVLOOP_ONCE);
    EXPECT_EQ(ran.size(), 8U);
}

TEST_F(Async, LongActionsRunInTheirOwnOrderWhenNoOtherWaits)
{
    common_async_action_call_long(note, number(10));
    common_async_action_call_long(note, number(11));
    common_async_action_call(note, number(1));
    common_async_action_call(note, number(2));
    EXPECT_TRUE(ran.empty());
    run_until(4);
    EXPECT_EQ(ran, (std::vector{1, 2, 10, 11}));
}

TEST_F(Async, NoLongActionComesBetweenTheStepsOfOthers)
{
    common_async_action_call_long(note, number(100));
    common_async_action_call(note_three_steps, number(11));
    common_async_action_call(note_three_steps, number(21));
    run_until(7);
    EXPECT_EQ(ran, (std::vector{11, 21, 12, 22, 13, 23, 100}));
}

TEST_F(Async, AFloodOfActionsDoesNotKeepALongOneOut)
{
    for (int i = 0; i < 100; ++i) {
        common_async_action_call(note, number(i));
    }
    common_async_action_call_long(note, number(1000));
    common_async_action_call_long(note, number(1001));
    run_until(102);
    ASSERT_EQ(ran.size(), 102U);
    EXPECT_EQ(ran[32], 1000) << "after 32 others";
    EXPECT_EQ(ran[65], 1001) << "after 32 more";
    EXPECT_EQ(ran[101], 99);
}

TEST_F(Async, ALongActionAloneRunsOnALaterTurn)
{
    common_async_action_call_long(note, number(1));
    EXPECT_TRUE(ran.empty());
    run_until(1);
    EXPECT_EQ(ran, std::vector{1});
}

TEST_F(Async, AScheduleWithZeroDelayRunsOnALaterLoopTurn)
{
    common_async_action_schedule(note, number(7), 0, 0);
    EXPECT_TRUE(ran.empty());
    event_base_loop(base, EVLOOP_ONCE);
    EXPECT_EQ(ran, std::vector{7});
}

TEST_F(Async, AScheduleRunsOnceAfterItsDelay)
{
    common_async_action_schedule(note, number(2), 0, 20000);
    common_async_action_schedule(note, number(1), 0, 1000);
    while (ran.size() < 2) {
        event_base_loop(base, EVLOOP_ONCE);
    }
    EXPECT_EQ(ran, (std::vector{1, 2}));
}

void queue_another(void *, short, common_async_context *)
{
    ran.push_back(1);
    common_async_action_call(note, number(2));
    EXPECT_EQ(ran, std::vector{1}) << "the new action ran inside the call";
}

TEST_F(Async, ACallbackMayQueueFurtherActions)
{
    common_async_action_call(queue_another, nullptr);
    run_until(2);
    EXPECT_EQ(ran, (std::vector{1, 2}));
}

TEST_F(Async, QueuesAgainAfterTheQueueRanEmpty)
{
    for (int round = 0; round < 3; ++round) {
        common_async_action_call(note, number(round));
        run_until(static_cast<std::size_t>(round) + 1);
    }
    EXPECT_EQ(ran, (std::vector{0, 1, 2}));
}

constexpr int flood = 100000;

void queue_flood(void *, short, common_async_context *)
{
    for (int i = 0; i < flood; ++i) {
        common_async_action_call(note, number(i));
    }
}

TEST_F(Async, AHundredThousandActionsFromOneCallbackAllRunInOrder)
{
    common_async_action_call(queue_flood, nullptr);
    run_until(flood);
    ASSERT_EQ(ran.size(), static_cast<std::size_t>(flood));
    for (int i = 0; i < flood; ++i) {
        ASSERT_EQ(ran[static_cast<std::size_t>(i)], i);
    }
}

TEST_F(Async, AnActionWithoutCallbackEndsTheProcess)
{
    const captured_log log;
    EXPECT_DEATH(
        {
            common_async_action_call(nullptr, nullptr);
            event_base_loop(base, EVLOOP_ONCE);
        },
        "action_cb: ctx->cb is null: null reference");
}

} // namespace
