#include "http_server/give_back.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "fakes/https_client.h"
#include "handles/libevent.h"
#include "malloc/tls_rooms.h"

namespace {

using namespace std::chrono_literals;

int trimmed = 0;            // how often the heap was given back
std::size_t last_kept = 0;  // at its end, the last time
std::intptr_t heap_end = 0; // what the C library says of it
bool timers_fail = false;

class GiveBack : public testing::Test {
  protected:
    GiveBack()
    {
        trimmed = 0;
        heap_end = 0x10000000;
        http_give_back_open(loop.get());
    }

    const event_base_ptr loop{event_base_new()};
};

} // namespace

/// In place of the C library's.
extern "C" int malloc_trim(std::size_t pad) noexcept
{
    ++trimmed;
    last_kept = pad;
    return 1;
}

/// The same: of the heap only its end is asked here.
extern "C" void *sbrk(std::intptr_t /*more*/) noexcept
{
    return reinterpret_cast<void *>(heap_end); // NOLINT(performance-no-int-to-ptr)
}

/// In front of libevent's.
extern "C" int event_add(event *ev, const timeval *timeout)
{
    static const auto behind =
        reinterpret_cast<decltype(&event_add)>(dlsym(RTLD_NEXT, "event_add"));
    return timers_fail ? -1 : behind(ev, timeout);
}

namespace {

void expect_a_second_after(event_base *loop, int times, void (*call)())
{
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < times; ++i) {
        call();
    }
    EXPECT_TRUE(turn_until(loop, [] { return trimmed == 1; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 990ms);
}

constexpr std::intptr_t kept = 64 * 1024;
/// What is kept, and what four connections have.
constexpr std::intptr_t much = 2 * kept;

TEST_F(GiveBack, EndsWaitForASecondWhileTheHeapDoesNotGrowMuch)
{
    heap_end += much - 1;
    expect_a_second_after(loop.get(), 1000, http_give_back_after_end);
}

/// A room for a record that was used and is free again.
void *used_room()
{
    void *const room = tls_room_take(tls_room_least);
    EXPECT_NE(room, nullptr);
    std::memset(room, 1, tls_room_least);
    tls_room_give_back(room);
    return room;
}

bool is_resident(void *room)
{
    unsigned char first_page = 0;
    EXPECT_EQ(mincore(room, 1, &first_page), 0);
    return (first_page & 1) != 0;
}

TEST_F(GiveBack, WhenTheHeapHasGrownMuchItIsGivenBackWithinMillisecondsAndTheRoomsOfTlsAreNot)
{
    void *const room = used_room();
    const auto begin = std::chrono::steady_clock::now();
    heap_end += much;
    http_give_back_after_end();
    EXPECT_EQ(trimmed, 0); // what has ended is not freed yet
    EXPECT_TRUE(turn_until(loop.get(), [] { return trimmed == 1; }));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 900ms);
    EXPECT_TRUE(is_resident(room));
}

TEST_F(GiveBack, EachTimeThatItGrowsMuchMoreAndFromItsEndAnewAfterASecond)
{
    const auto ended_with = [this](std::intptr_t more) {
        const int before = trimmed;
        heap_end += more;
        http_give_back_after_end();
        turn_for(loop.get(), 20ms);
        return trimmed - before;
    };
    EXPECT_EQ(ended_with(much), 1);
    EXPECT_EQ(ended_with(much - 1), 0);
    EXPECT_EQ(ended_with(1), 1);
    EXPECT_EQ(ended_with(0), 0);
    EXPECT_EQ(ended_with(-much), 0); // shorter, and as long again
    EXPECT_EQ(ended_with(much), 0);
    heap_end -= 2 * much;
    EXPECT_TRUE(turn_until(loop.get(), [] { return trimmed == 3; })); // the second is over
    EXPECT_EQ(ended_with(much), 1);
}

TEST_F(GiveBack, ConnectionsThatComeWaitForASecond)
{
    expect_a_second_after(loop.get(), 8, http_give_back_soon);
}

/// When what the start has freed is given back.
class GiveBackLater : public GiveBack {
  protected:
    GiveBackLater()
    {
        http_give_back_soon();
        EXPECT_TRUE(turn_until(loop.get(), [] { return trimmed == 1; }));
        EXPECT_EQ(last_kept, 0);
    }

    /// How often the heap is given back, within milliseconds or when that second is over.
    [[nodiscard]] int trimmed_after(void (*call)()) const
    {
        const int before = trimmed;
        call();
        turn_for(loop.get(), 1050ms);
        return trimmed - before;
    }
};

TEST_F(GiveBackLater, WhatOnePhoneLeavesIsKeptForTheNextOne)
{
    void *const room = used_room();
    heap_end += much - 1;
    EXPECT_EQ(trimmed_after(http_give_back_soon), 0);
    EXPECT_EQ(trimmed_after(http_give_back_after_end), 0);
    EXPECT_TRUE(is_resident(room));
    heap_end += 1;
    EXPECT_EQ(trimmed_after(http_give_back_soon), 1);
    EXPECT_EQ(last_kept, kept);
    EXPECT_FALSE(is_resident(room));
}

TEST_F(GiveBackLater, AllIsGivenBackWhenTheHeapWasLongerMeanwhile)
{
    heap_end += much;
    http_give_back_after_end();
    heap_end -= much;
    EXPECT_EQ(trimmed_after(http_give_back_after_end), 2);
    EXPECT_EQ(trimmed_after(http_give_back_after_end), 0);
}

TEST_F(GiveBackLater, WhatConnectionsHadIsGivenBackWhenTheyLeaveThoughItWasThereWhenTheyCame)
{
    heap_end += much;
    EXPECT_EQ(trimmed_after(http_give_back_soon), 1); // they stay, and so does the heap's end
    EXPECT_EQ(trimmed_after(http_give_back_after_end), 2);
    heap_end -= 2 * much;
    EXPECT_EQ(trimmed_after(http_give_back_after_end), 0);
}

[[noreturn]] void give_back_without_timers()
{
    timers_fail = true;
    http_give_back_soon();
    std::_Exit(0);
}

TEST_F(GiveBack, ATimerThatCannotBeSetEndsTheDaemon)
{
    EXPECT_DEATH(give_back_without_timers(),
                 "begin: call failed: evtimer_add\\(timer, &time\\) result: -1");
}

} // namespace
