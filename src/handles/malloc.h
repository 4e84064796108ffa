#pragma once

#include <cstddef>
#include <cstdlib>
#include <type_traits>

#include "handles/exhaustion.h"
#include "handles/handle.h"

/// Memory of the C allocator.

/// Text or bytes that a C function made with malloc.
using malloc_text = handle<char, std::free>;

/// A zero-filled plain object, or null when memory is exhausted and no new-handler ends the process:
/// for the few places that answer that with a log line.
template <typename T>
using plain_ptr = handle<T, std::free>;

template <typename T>
plain_ptr<T> try_make_plain(std::size_t count = 1) noexcept
{
    static_assert(std::is_trivially_destructible_v<T>);
    void *memory = std::calloc(count, sizeof(T));
    memory_is_exhausted_if(memory == nullptr && count != 0);
    return plain_ptr<T>{static_cast<T *>(memory)};
}
