#pragma once

#include <cjose/util.h>
#include <cjson/cJSON.h>
#include <event2/event.h>
#include <evhtp/evhtp.h>
#include <openssl/crypto.h>

#include <cstddef>
#include <cstdlib>

/// The C libraries' own memory, made and freed by functions of ours. Only `malloc`, `realloc` and
/// `free` stand behind them, so what a library made may be freed by any other.

/// What is called when memory is exhausted; it does not return.
using exhausted_memory_handler = void (*)();

template <exhausted_memory_handler Exhausted>
struct checked_allocator {
    static void *allocate(std::size_t size) noexcept
    {
        void *memory = std::malloc(size);
        if (memory == nullptr && size != 0) {
            Exhausted();
        }
        return memory;
    }

    static void *reallocate(void *old, std::size_t size) noexcept
    {
        void *memory = std::realloc(old, size);
        if (memory == nullptr && size != 0) {
            Exhausted();
        }
        return memory;
    }

    /// OpenSSL wants a null for nothing, and names the place in its source.
    static void *allocate_at(std::size_t size, const char *, int) noexcept
    {
        return size == 0 ? nullptr : allocate(size);
    }

    static void *reallocate_at(void *old, std::size_t size, const char *, int) noexcept
    {
        return size == 0 && old == nullptr ? nullptr : reallocate(old, size);
    }

    static void free_at(void *memory, const char *, int) noexcept
    {
        std::free(memory);
    }

    /// Takes effect for OpenSSL only before its first allocation. libcbor 0.8 and glibc have no
    /// such functions.
    static void install() noexcept
    {
        cJSON_Hooks hooks{allocate, std::free};
        cJSON_InitHooks(&hooks);
        // Sets libevent's too.
        evhtp_set_mem_functions(allocate, reallocate, std::free);
        event_set_mem_functions(allocate, reallocate, std::free);
        // Sets jansson's too, and OpenSSL's, whose come after it for that reason.
        cjose_set_alloc_funcs(allocate, reallocate, std::free);
        CRYPTO_set_mem_functions(allocate_at, reallocate_at, free_at);
    }
};
