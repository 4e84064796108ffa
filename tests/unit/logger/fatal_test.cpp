#include "logger/fatal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <new>

#include "fakes/captured_log.h"
#include "handles/exhaustion.h"
#include "handles/malloc.h"

/// An exhausted allocator answers with null under the sanitizer too.
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1";
}

namespace {

constexpr char log_category[] = "main";

class Fatal : public testing::Test {
  protected:
    const captured_log log;
};

void require_not_null(const void *velm_config)
{
    REQUIRE_NOT_NULL(velm_config, "velm_config");
}

void require_memory(const void *bssids)
{
    REQUIRE_MEMORY(bssids, "bssids");
}

void require_call(int rc)
{
    REQUIRE_CALL(rc == 0, "event_add(event_sighup, NULL)", rc);
}

TEST_F(Fatal, ANullReferenceIsNamed)
{
    EXPECT_DEATH(require_not_null(nullptr),
                 "ERROR main - require_not_null: velm_config is null: null reference");
}

TEST_F(Fatal, AFailedAllocationIsNamed)
{
    EXPECT_DEATH(require_memory(nullptr),
                 "ERROR main - require_memory: bssids is null: not enough memory");
}

TEST_F(Fatal, AFailedCallIsShownWithResultAndPlace)
{
    EXPECT_DEATH(require_call(-1),
                 "ERROR main - require_call: call failed: event_add\\(event_sighup, NULL\\) "
                 "result: -1 loc: tests/unit/logger/fatal_test.cpp:[0-9]+");
}

TEST_F(Fatal, TheProcessAborts)
{
    EXPECT_EXIT(require_call(1), testing::KilledBySignal(SIGABRT), "result: 1");
}

TEST_F(Fatal, WhatHoldsGoesOnSilently)
{
    require_not_null(this);
    require_memory(this);
    require_call(0);
    EXPECT_TRUE(log.lines().empty());
}

void exhaust_memory()
{
    fatal_install_memory_handler();
    std::get_new_handler()();
}

TEST_F(Fatal, ExhaustedMemoryNamesTheInnermostObject)
{
    const allocation_name outer{"main", "velm_config"};
    const allocation_name inner{"connection_accept", "d->ip"};
    EXPECT_DEATH(exhaust_memory(),
                 "ERROR memory - connection_accept: d->ip is null: not enough memory");
}

TEST_F(Fatal, ExhaustedMemoryNamesTheOuterObjectAgainAfterTheInnerScope)
{
    const allocation_name outer{"main", "velm_config"};
    {
        const allocation_name inner{"connection_accept", "d->ip"};
    }
    EXPECT_DEATH(exhaust_memory(), "ERROR memory - main: velm_config is null: not enough memory");
}

TEST_F(Fatal, ExhaustedMemoryWithoutANameSpeaksOfTheAllocator)
{
    EXPECT_DEATH(exhaust_memory(), "ERROR memory - malloc: memory is null: not enough memory");
}

/// More than an object may have on any machine, and hidden from the optimiser.
std::size_t too_much()
{
    volatile std::size_t size = SIZE_MAX / 2 + 1;
    return size;
}

TEST_F(Fatal, APlainObjectWithoutMemoryEndsTheProcess)
{
    EXPECT_EXIT(
        {
            fatal_install_memory_handler();
            static_cast<void>(try_make_plain<char>(too_much()));
        },
        testing::KilledBySignal(SIGABRT),
        "ERROR memory - malloc: memory is null: not enough memory");
}

void ask_too(const char *, int, const char *text, const char *, int)
{
    static int lines = 0;
    std::fputs(++lines > 1 ? "another line" : text, stderr);
    static_cast<void>(try_make_plain<char>(too_much()));
}

TEST_F(Fatal, WhatTheLineItselfAsksForMayFail)
{
    constexpr common_logger_observer asks_too{nullptr, nullptr, ask_too, nullptr};
    common_logger_set_observer(&asks_too);
    EXPECT_EXIT(exhaust_memory(), testing::KilledBySignal(SIGABRT),
                testing::AllOf(testing::HasSubstr("not enough memory"),
                               testing::Not(testing::HasSubstr("another line"))));
}

TEST_F(Fatal, ExhaustionUnderALockIsMetWithWhenTheLockIsGivenBack)
{
    EXPECT_EXIT(
        {
            fatal_install_memory_handler();
            {
                const exhaustion_met_at_end lock;
                memory_is_exhausted();
                std::fputs("given back\n", stderr);
            }
        },
        testing::KilledBySignal(SIGABRT), "^given back\n.*not enough memory");
}

TEST_F(Fatal, WithoutExhaustionUnderALockNothingIsMet)
{
    int calls = 0;
    static int *counter = nullptr;
    counter = &calls;
    const std::new_handler before = std::set_new_handler([] { ++*counter; });
    {
        const exhaustion_met_at_end lock;
    }
    EXPECT_EQ(calls, 0);
    memory_is_exhausted();
    EXPECT_EQ(calls, 1);
    std::set_new_handler(before);
}

/// Called where the C++ library has nobody to throw to.
TEST_F(Fatal, WhatTheCppLibraryEndsIsALogLineToo)
{
    EXPECT_EXIT(std::terminate(), testing::KilledBySignal(SIGABRT),
                "ERROR memory - std::terminate: call failed: the C\\+\\+ library result: 0 loc: ");
}

} // namespace
