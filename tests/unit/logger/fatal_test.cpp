#include "logger/fatal.h"

#include <cjose/util.h>
#include <cjson/cJSON.h>
#include <event2/buffer.h>
#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <csignal>
#include <cstdint>
#include <new>
#include <string>

#include "fakes/captured_log.h"
#include "handles/memory.h"

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
    fatal_install_memory_handlers();
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
    EXPECT_DEATH(exhaust_memory(),
                 "ERROR memory - operator new: memory is null: not enough memory");
}

/// More than any machine has, and hidden from the optimiser.
std::size_t too_much()
{
    volatile std::size_t size = SIZE_MAX / 4;
    return size;
}

TEST_F(Fatal, CJsonWithoutMemoryEndsTheProcess)
{
    EXPECT_DEATH(
        {
            fatal_install_memory_handlers();
            cJSON_free(cJSON_malloc(too_much()));
        },
        "ERROR memory - operator new: memory is null: not enough memory");
}

/// Each in a process of its own, and one that has not used the library yet.
struct library_case {
    const char *name;
    void (*ask)();
};
class LibraryWithoutMemory : public Fatal, public testing::WithParamInterface<library_case> {};

TEST_P(LibraryWithoutMemory, EndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            fatal_install_memory_handlers();
            GetParam().ask();
        },
        testing::KilledBySignal(SIGABRT),
        "ERROR memory - operator new: memory is null: not enough memory");
}

INSTANTIATE_TEST_SUITE_P(
    All, LibraryWithoutMemory,
    testing::Values(
        library_case{"OpenSSL", [] { static_cast<void>(OPENSSL_malloc(too_much())); }},
        library_case{"OpenSslAgain",
                     [] { static_cast<void>(OPENSSL_realloc(nullptr, too_much())); }},
        library_case{"Libevent", [] { evbuffer_expand(evbuffer_new(), too_much() / 4); }},
        library_case{"Cjose", [] { static_cast<void>(cjose_get_alloc()(too_much())); }},
        library_case{"PlainObjects", [] { static_cast<void>(try_make_plain<char>(too_much())); }}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(Fatal, CJsonWorksOnWithTheHandlersInstalled)
{
    fatal_install_memory_handlers();
    cJSON *const json = cJSON_Parse(R"({"a":[1,2,"three"]})");
    char *const text = cJSON_PrintUnformatted(json);
    EXPECT_STREQ(text, R"({"a":[1,2,"three"]})");
    cJSON_free(text);
    cJSON_Delete(json);
}

} // namespace
