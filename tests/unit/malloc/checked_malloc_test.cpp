#include "malloc/checked_malloc.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <openssl/buffer.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "fakes/captured_log.h"
#include "fakes/heap_in_use.h"
#include "handles/fd.h"
#include "malloc/tls_rooms.h"

namespace {

/// Hidden from the optimiser, which knows malloc.
std::size_t hidden(std::size_t size)
{
    volatile std::size_t kept = size;
    return kept;
}

void *volatile sink = nullptr;

class CheckedMalloc : public testing::Test {
  protected:
    const captured_log log;
};

struct length_case {
    const char *name;
    void *(*ask)();
};
constexpr char largest_difference[] = "MallocOfTheLargestDifference";
class AbsurdLength : public CheckedMalloc, public testing::WithParamInterface<length_case> {};

TEST_P(AbsurdLength, IsRefusedAndEndsNothing)
{
    if (sizeof(std::size_t) < 8 && std::string_view{GetParam().name} == largest_difference) {
        GTEST_SKIP() << "2 GiB may be free in 4 GiB";
    }
    const std::new_handler before =
        std::set_new_handler([] { FAIL() << "taken for exhausted memory"; });
    EXPECT_EQ(GetParam().ask(), nullptr);
    std::set_new_handler(before);
}

INSTANTIATE_TEST_SUITE_P(
    All, AbsurdLength,
    testing::Values(length_case{"Malloc", [] { return std::malloc(hidden(SIZE_MAX)); }},
                    length_case{largest_difference,
                                [] { return std::malloc(hidden(PTRDIFF_MAX)); }},
                    length_case{"CallocThatOverflowsToASmallOne",
                                [] { return std::calloc(hidden(SIZE_MAX / 2 + 2), 2); }},
                    length_case{"Realloc", [] { return std::realloc(nullptr, hidden(SIZE_MAX)); }},
                    length_case{"ArrayThatOverflows",
                                [] { return reallocarray(nullptr, hidden(SIZE_MAX), 2); }},
                    length_case{"OpenSsl", [] { return OPENSSL_malloc(hidden(SIZE_MAX / 2 + 1)); }},
                    length_case{"CJson", [] { return cJSON_malloc(hidden(SIZE_MAX / 2 + 1)); }}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(CheckedMalloc, NothingIsNoShortage)
{
    const std::new_handler before =
        std::set_new_handler([] { FAIL() << "taken for exhausted memory"; });
    std::free(std::malloc(hidden(0)));
    std::free(std::calloc(hidden(0), 8));
    EXPECT_EQ(std::realloc(std::malloc(8), hidden(0)), nullptr);
    void *memory = nullptr;
    EXPECT_EQ(posix_memalign(&memory, 3, 8), EINVAL);
    std::set_new_handler(before);
}

TEST_F(CheckedMalloc, IsThatOfTheAllocatorWhenThereIsMemory)
{
    const std::size_t before = heap_in_use();
    void *const memory = std::malloc(hidden(1000));
    EXPECT_GE(malloc_usable_size(memory), 1000U);
    EXPECT_GT(heap_in_use(), before);
    void *const larger = std::realloc(memory, hidden(2000));
    EXPECT_GE(malloc_usable_size(larger), 2000U);
    std::free(larger);
    void *const aligned = std::aligned_alloc(256, hidden(512));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(aligned) % 256, 0U);
    std::free(aligned);
}

TEST_F(CheckedMalloc, CallocGivesZerosOnBothSidesOfWhatIsKeptAtHand)
{
    for (const std::size_t size : {1, 24, 1000, 1024, 1025, 1040, 100'000}) {
        auto *const used = static_cast<unsigned char *>(std::malloc(hidden(size)));
        std::fill(used, used + size, static_cast<unsigned char>(0xff));
        sink = used;
        std::free(used);
        auto *const zeros = static_cast<unsigned char *>(std::calloc(hidden(size), 1));
        EXPECT_TRUE(std::all_of(zeros, zeros + size, [](auto byte) { return byte == 0; })) << size;
        std::free(zeros);
    }
}

// What is freed

constexpr char secret[] = "a secret that is looked for";
constexpr std::size_t behind_the_allocators_own = 64;

/// A block of this size with the secret in it, where the allocator's own notes do not cover it.
char *block_with_secret(std::size_t size, void *(*take)(std::size_t))
{
    char *const block = static_cast<char *>(take(size));
    std::memcpy(block + behind_the_allocators_own, secret, sizeof secret);
    return block;
}

/// Of memory that may be freed: read through the kernel, since a compiler knows that nobody may look,
/// and without allocating, which might take that very block.
bool holds_secret(std::uintptr_t block, std::size_t size)
{
    static std::array<char, 100000> content;
    const unique_fd memory{::open("/proc/self/mem", O_RDONLY | O_CLOEXEC)};
    const ssize_t length = ::pread(memory.get(), content.data(), std::min(size, content.size()),
                                   static_cast<off_t>(block));
    EXPECT_GT(length, 0);
    const std::string_view read{content.data(),
                                static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
    return read.find(secret) != std::string_view::npos;
}

void *take_of_openssl(std::size_t size)
{
    return OPENSSL_malloc(size);
}

struct freeing_case {
    const char *name;
    std::size_t size;
    void *(*take)(std::size_t);
    void (*give_back)(void *);
    bool wiped;
};
class Freed : public testing::TestWithParam<freeing_case> {};

TEST_P(Freed, MemoryIsOverwrittenUnlessItIsSmallAndOfOpenssl)
{
    const freeing_case &one = GetParam();
    char *const block = block_with_secret(one.size, one.take);
    void *const fence = std::malloc(hidden(64)); // keeps the end of the heap where it is
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    ASSERT_TRUE(holds_secret(address, one.size));
    one.give_back(block);
    EXPECT_NE(holds_secret(address, one.size), one.wiped);
    std::free(fence);
}

INSTANTIATE_TEST_SUITE_P(
    By, Freed,
    testing::Values(freeing_case{"Free", 200, std::malloc, std::free, true},
                    freeing_case{"FreeOfMuch", 100000, std::malloc, std::free, true},
                    freeing_case{"Delete", 3000,
                                 [](std::size_t size) { return ::operator new(size); },
                                 [](void *block) { ::operator delete(block); }, true},
                    freeing_case{"ReallocToMore", 3000, std::malloc,
                                 [](void *block) { std::free(std::realloc(block, 50000)); }, true},
                    freeing_case{"ReallocToLess", 3000, std::malloc,
                                 [](void *block) { std::free(std::realloc(block, 100)); }, true},
                    freeing_case{"ReallocToNothing", 3000, std::malloc,
                                 [](void *block) { sink = std::realloc(block, hidden(0)); }, true},
                    freeing_case{"ARecordOfTls", 16704, take_of_openssl,
                                 [](void *block) { OPENSSL_free(block); }, true},
                    freeing_case{"ARecordOfTlsWithoutARoom", 50000, take_of_openssl,
                                 [](void *block) { OPENSSL_free(block); }, true},
                    freeing_case{"AnObjectOfOpenssl", 3000, take_of_openssl,
                                 [](void *block) { OPENSSL_free(block); }, false}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(CheckedMalloc, WhatOpensslMadeLargerOrSmallerIsOverwrittenByItsLastSize)
{
    void *const grown = OPENSSL_realloc(OPENSSL_malloc(3000), 50000);
    void *const shrunk = OPENSSL_realloc(OPENSSL_malloc(50000), 3000);
    void *const fence = std::malloc(hidden(64));
    struct {
        void *block;
        std::size_t size;
        bool wiped;
    } const cases[] = {{grown, 50000, true}, {shrunk, 3000, false}};
    for (const auto &one : cases) {
        ASSERT_NE(one.block, nullptr);
        std::memcpy(static_cast<char *>(one.block) + behind_the_allocators_own, secret,
                    sizeof secret);
        const auto address = reinterpret_cast<std::uintptr_t>(one.block);
        OPENSSL_free(one.block);
        EXPECT_NE(holds_secret(address, one.size), one.wiped) << one.size;
    }
    std::free(fence);
}

TEST_F(CheckedMalloc, OpensslOverwritesARoomForMessagesItself)
{
    BUF_MEM *const messages = BUF_MEM_new();
    ASSERT_NE(messages, nullptr);
    ASSERT_EQ(BUF_MEM_grow(messages, 16384), 16384U); // as a handshake does it
    char *const room = messages->data;
    ASSERT_TRUE(tls_room_is_one(room));
    ASSERT_GT(messages->max, tls_room_record_most) << "a room for a record, which we overwrite";
    std::memcpy(room + behind_the_allocators_own, secret, sizeof secret);
    std::memcpy(room + messages->max - sizeof secret, secret, sizeof secret);
    const auto address = reinterpret_cast<std::uintptr_t>(room);
    const std::size_t size = messages->max;
    ASSERT_TRUE(holds_secret(address, size));
    BUF_MEM_free(messages);
    EXPECT_FALSE(holds_secret(address, size));
}

TEST_F(CheckedMalloc, ReallocKeepsWhatThereWas)
{
    char *block = block_with_secret(100, std::malloc);
    for (const std::size_t size : {101U, 5000U, 4999U, 300U, 100000U, 100U}) {
        block = static_cast<char *>(std::realloc(block, size));
        ASSERT_NE(block, nullptr);
        EXPECT_STREQ(block + behind_the_allocators_own, secret) << size;
    }
    std::free(block);
}

} // namespace
