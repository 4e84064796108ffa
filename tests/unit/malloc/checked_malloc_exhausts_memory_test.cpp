#include "malloc/checked_malloc.h"

#include <cjose/util.h>
#include <cjson/cJSON.h>
#include <event2/buffer.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <openssl/crypto.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <new>
#include <string>

#include "fakes/captured_log.h"
#include "logger/fatal.h"

namespace {

constexpr std::size_t much = checked_malloc_largest / 4;

/// Hidden from the optimiser, which knows malloc.
std::size_t hidden(std::size_t size)
{
    volatile std::size_t kept = size;
    return kept;
}

void *volatile sink = nullptr;

void ask(std::size_t size)
{
    sink = std::malloc(hidden(size));
}

/// From here on the process gets hardly any more memory.
void exhaust_memory()
{
    std::size_t pages = 0;
    std::ifstream{"/proc/self/statm"} >> pages;
    const rlim_t size = pages * 4096 + 256 * 1024;
    const rlimit limit{size, size};
    setrlimit(RLIMIT_AS, &limit);
}

void exhaust_the_daemons_memory()
{
    exhaust_memory();
    fatal_install_memory_handler();
}

class CheckedMallocWithoutMemory : public testing::Test {
  protected:
    const captured_log log;
};

struct caller_case {
    const char *name;
    void (*ask)();
};
class Caller : public CheckedMallocWithoutMemory,
               public testing::WithParamInterface<caller_case> {};

TEST_P(Caller, WithoutMemoryEndsInTheFatalLine)
{
    // Each in a process of its own.
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            exhaust_the_daemons_memory();
            GetParam().ask();
        },
        testing::KilledBySignal(SIGABRT),
        "ERROR memory - malloc: memory is null: not enough memory");
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    All, Caller,
    testing::Values(
        caller_case{"Malloc", [] { ask(much); }},
        caller_case{"Calloc", [] { sink = std::calloc(hidden(much) / 64, 64); }},
        caller_case{"Realloc", [] { sink = std::realloc(std::malloc(1), hidden(much)); }},
        caller_case{"Memalign", [] { sink = memalign(64, hidden(much)); }},
        caller_case{"AlignedAlloc", [] { sink = std::aligned_alloc(64, hidden(much)); }},
        caller_case{"PosixMemalign", [] {
            void *memory = nullptr;
            sink = posix_memalign(&memory, 64, hidden(much)) == 0 ? memory : nullptr;
        }},
        caller_case{"New", [] { sink = ::operator new(hidden(much)); }},
        caller_case{"NewThatMayFail", [] { sink = ::operator new(hidden(much), std::nothrow); }},
        caller_case{"CLibraryText", [] {
            char *text = nullptr;
            sink = asprintf(&text, "%*d", static_cast<int>(much), 1) < 0 ? nullptr : text;
        }},
        caller_case{"CLibraryArray", [] { sink = reallocarray(nullptr, hidden(much), 1); }},
        caller_case{"OpenSsl", [] { sink = OPENSSL_malloc(hidden(much)); }},
        caller_case{"OpenSslAgain", [] { sink = OPENSSL_realloc(nullptr, hidden(much)); }},
        caller_case{"Libevent", [] { evbuffer_expand(evbuffer_new(), hidden(much)); }},
        caller_case{"Cjose", [] { sink = cjose_get_alloc()(hidden(much)); }},
        caller_case{"CJson", [] { sink = cJSON_malloc(hidden(much)); }}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

TEST_F(CheckedMallocWithoutMemory, UpToItsLargestRequestAFailureIsAShortage)
{
    EXPECT_EXIT(
        {
            exhaust_the_daemons_memory();
            ask(checked_malloc_largest);
        },
        testing::KilledBySignal(SIGABRT), "not enough memory");
}

TEST_F(CheckedMallocWithoutMemory, BeyondItsLargestRequestAFailureIsARefusalOfTheLength)
{
    EXPECT_EXIT(
        {
            exhaust_the_daemons_memory();
            errno = 0;
            ask(checked_malloc_largest + 1);
            std::_Exit(sink == nullptr && errno == ENOMEM ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
}

TEST_F(CheckedMallocWithoutMemory, BeforeMainHasAHandlerAFailureEndsInALineToo)
{
    EXPECT_EXIT(
        {
            exhaust_memory();
            ask(much);
        },
        testing::KilledBySignal(SIGABRT), "^not enough memory\n$");
}

TEST_F(CheckedMallocWithoutMemory, WithoutAHandlerAFailureIsANull)
{
    EXPECT_EXIT(
        {
            exhaust_memory();
            std::set_new_handler(nullptr);
            ask(much);
            std::_Exit(sink == nullptr ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
}

} // namespace
