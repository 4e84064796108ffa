#pragma once

#include <memory>

/// Owners for C objects. An object lives in its handle from the line that makes it, so every exit
/// frees it; `new`, `delete`, `free` and the libraries' own free functions appear only in this
/// folder.

/// Calls the library's free function; stateless, so a handle is as small as the pointer.
template <auto Free>
struct free_with {
    template <typename T>
    void operator()(T *object) const noexcept
    {
        Free(object);
    }
};

template <typename T, auto Free>
using handle = std::unique_ptr<T, free_with<Free>>;
