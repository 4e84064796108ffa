#include "malloc/checked_malloc.h"

#include <dlfcn.h>
#include <malloc.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "handles/exhaustion.h"
#include "malloc/json_arena.h"
#include "malloc/tls_rooms.h"

namespace {

/// Up to here glibc keeps what was freed at hand, but its calloc does not look there.
constexpr std::size_t small_size = 1024;

/// The plaintext of the longest record: OpenSSL's buffer for one is never smaller.
constexpr std::size_t tls_record_size = 16384;

/// The allocator's own functions.
struct allocator {
    void *(*malloc)(std::size_t);
    void *(*calloc)(std::size_t, std::size_t);
    void *(*realloc)(void *, std::size_t);
    void *(*memalign)(std::size_t, std::size_t);
    void *(*aligned_alloc)(std::size_t, std::size_t);
    int (*posix_memalign)(void **, std::size_t, std::size_t);
    void (*free)(void *) noexcept;
};
constinit allocator next{};
constinit bool is_looked_up = false;
constinit bool is_being_looked_up = false;

/// Without stdio, which allocates.
[[noreturn]] void end_without_allocator() noexcept
{
    constexpr std::string_view reason =
        "velmd: cannot check memory: no malloc of a shared C library is behind its own, as in a "
        "static program: build with -DVELM_CHECK_MALLOC=OFF\n";
    (void)!write(STDERR_FILENO, reason.data(), reason.size());
    std::abort();
}

template <typename Function>
void look_up(Function **function, const char *name) noexcept
{
    *function = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
    if (*function == nullptr) {
        end_without_allocator();
    }
}

/// The loader allocates before any constructor has run, so the first who asks looks them up. False to
/// the look-up itself, which then does without: an older C library asks for room for its errors.
[[gnu::noinline]] bool look_up_all() noexcept
{
    if (is_being_looked_up) {
        errno = ENOMEM;
        return false;
    }
    is_being_looked_up = true;
    look_up(&next.malloc, "malloc");
    look_up(&next.calloc, "calloc");
    look_up(&next.realloc, "realloc");
    look_up(&next.memalign, "memalign");
    look_up(&next.aligned_alloc, "aligned_alloc");
    look_up(&next.posix_memalign, "posix_memalign");
    look_up(&next.free, "free");
    is_being_looked_up = false;
    is_looked_up = true;
    return true;
}

bool is_ready() noexcept
{
    return is_looked_up || look_up_all();
}

bool is_shortage(std::size_t size) noexcept
{
    return size > 0 && size <= checked_malloc_largest;
}

void *checked(void *memory, std::size_t size) noexcept
{
    memory_is_exhausted_if(memory == nullptr && is_shortage(size));
    return memory;
}

void free_wiped(void *memory) noexcept
{
    if (memory != nullptr && is_ready()) {
        std::memset(memory, 0, malloc_usable_size(memory));
        next.free(memory);
    }
}

/// How many blocks that may hold a record OpenSSL has on the heap. Nearly always all of them have rooms, and
/// then the size of the hundreds of blocks that a handshake frees is not asked.
constinit std::size_t records_on_heap = 0;

bool may_hold_record(void *memory) noexcept
{
    return memory != nullptr && malloc_usable_size(memory) >= tls_record_size;
}

void count_record(void *memory) noexcept
{
    if (may_hold_record(memory)) {
        ++records_on_heap;
    }
}

[[gnu::noinline]] void *openssl_malloc_large(std::size_t size) noexcept
{
    if (size == 0) {
        return nullptr;
    }
    if (void *const room = tls_room_take(size); room != nullptr) {
        return room;
    }
    void *const memory = checked(next.malloc(size), size);
    count_record(memory);
    return memory;
}

void *openssl_malloc(std::size_t size, const char * /*file*/, int /*line*/) noexcept
{
    if (size == 0 || size >= tls_room_least) [[unlikely]] {
        return openssl_malloc_large(size);
    }
    return checked(next.malloc(size), size);
}

[[gnu::noinline]] void openssl_free_large(void *memory) noexcept
{
    if (tls_room_is_one(memory)) {
        tls_room_give_back(memory);
    } else if (may_hold_record(memory)) {
        --records_on_heap;
        free_wiped(memory);
    } else {
        next.free(memory);
    }
}

/// OpenSSL frees nothing 64 times for each record: it clears its errors, 16 with two texts each.
void openssl_free(void *memory, const char * /*file*/, int /*line*/) noexcept
{
    if (memory == nullptr) {
        return;
    }
    if (records_on_heap > 0 || tls_room_is_one(memory)) [[unlikely]] {
        openssl_free_large(memory);
    } else {
        next.free(memory);
    }
}

/// What may lie in a room is moved like any other memory that grows.
void *openssl_realloc(void *old, std::size_t size, const char *file, int line) noexcept
{
    if (old == nullptr) {
        return openssl_malloc(size, file, line);
    }
    if (!tls_room_is_one(old)) {
        const bool was_counted = may_hold_record(old);
        void *const moved = std::realloc(old, size);
        if (was_counted && (moved != nullptr || size == 0)) {
            --records_on_heap;
        }
        count_record(moved);
        return moved;
    }
    if (size != 0 && size <= tls_room_most) {
        return old;
    }
    void *const moved = openssl_malloc(size, file, line);
    if (moved != nullptr) {
        std::memcpy(moved, old, tls_room_most);
    }
    if (moved != nullptr || size == 0) {
        openssl_free(old, file, line);
    }
    return moved;
}

/// A TLS handshake frees thousands of objects, and OpenSSL overwrites those that are secret itself. What
/// is secret to us lies only where records are decrypted.
[[gnu::constructor(101)]] void wipe_records_only_in_openssl() noexcept
{
    CRYPTO_set_mem_functions(openssl_malloc, openssl_realloc, openssl_free);
}

/// Not under a sanitizer: there each object of a body is watched by itself.
[[gnu::constructor(101)]] void install_json_arena() noexcept
{
    json_arena_install();
}

void end_before_main()
{
    std::fputs("not enough memory\n", stderr);
    std::abort();
}

/// Until main has a handler of its own: the modules' objects are made before.
[[gnu::constructor(101)]] void install_first_handler() noexcept
{
    std::set_new_handler(end_before_main);
}

} // namespace

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's are reserved
extern "C" {

void *malloc(std::size_t size) noexcept
{
    return is_ready() ? checked(next.malloc(size), size) : nullptr;
}

void *calloc(std::size_t count, std::size_t size) noexcept
{
    if (!is_ready()) {
        return nullptr;
    }
    std::size_t total = 0;
    if (__builtin_mul_overflow(count, size, &total)) {
        total = SIZE_MAX; // which nobody has
    }
    if (total > small_size) {
        return checked(next.calloc(1, total), total);
    }
    void *const memory = checked(next.malloc(total), total);
    return memory == nullptr ? nullptr : std::memset(memory, 0, total);
}

void *realloc(void *old, std::size_t size) noexcept
{
    if (!is_ready()) {
        return nullptr;
    }
    if (old == nullptr) {
        return malloc(size);
    }
    if (size == 0) {
        free(old);
        return nullptr;
    }
    const std::size_t room = malloc_usable_size(old);
    if (size <= room && size >= room / 2) {
        return old;
    }
    // The allocator would leave what was there behind when it moves it.
    void *const moved = checked(next.malloc(size), size);
    if (moved != nullptr) {
        std::memcpy(moved, old, std::min(size, room));
        free(old);
    }
    return moved;
}

void free(void *memory) noexcept
{
    free_wiped(memory);
}

void *memalign(std::size_t alignment, std::size_t size) noexcept
{
    return is_ready() ? checked(next.memalign(alignment, size), size) : nullptr;
}

void *aligned_alloc(std::size_t alignment, std::size_t size) noexcept
{
    return is_ready() ? checked(next.aligned_alloc(alignment, size), size) : nullptr;
}

int posix_memalign(void **memory, std::size_t alignment, std::size_t size) noexcept
{
    const int error = is_ready() ? next.posix_memalign(memory, alignment, size) : ENOMEM;
    memory_is_exhausted_if(error == ENOMEM && is_looked_up && is_shortage(size));
    return error;
}

} // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
