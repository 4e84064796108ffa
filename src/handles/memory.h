#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "handles/handle.h"

/// Text or bytes that a C function made with malloc.
using malloc_text = handle<char, std::free>;

/// Makes an object that crosses a C callback as `void *`; the callback takes it back with `adopt`
/// in its first statement.
template <typename T, typename... Args>
T *release_new(Args &&...args)
{
    return std::make_unique<T>(std::forward<Args>(args)...).release();
}

template <typename T>
std::unique_ptr<T> adopt(void *object) noexcept
{
    return std::unique_ptr<T>{static_cast<T *>(object)};
}

/// Overwrites a string or buffer that held a secret when the scope ends, where it then is.
template <typename Container>
class wiped_at_end {
  public:
    explicit wiped_at_end(Container *secret) : secret_{secret}
    {
    }
    ~wiped_at_end()
    {
        OPENSSL_cleanse(secret_->data(), secret_->size());
    }
    wiped_at_end(const wiped_at_end &) = delete;
    wiped_at_end &operator=(const wiped_at_end &) = delete;

  private:
    Container *secret_;
};

/// For who meets with exhausted memory outside of `new`: does what `new` does. In the daemon that is
/// the fatal line (logger/fatal.h); without a new-handler it returns. What asks the C allocator does
/// it in the daemon by itself (malloc/checked_malloc.h).
inline void memory_is_exhausted()
{
    if (const std::new_handler handler = std::get_new_handler(); handler != nullptr) {
        handler();
    }
}

/// The same where a C function tells by its error.
inline void memory_is_exhausted_if(bool condition)
{
    if (condition) {
        memory_is_exhausted();
    }
}

/// While it lives exhausted memory is only noted, and met with at its end: for a C function that
/// allocates under a lock for which the fatal line would wait. Nothing in C++ may allocate meanwhile.
class exhaustion_met_at_end {
  public:
    exhaustion_met_at_end() noexcept : handler_{std::set_new_handler(note)}
    {
        noted = false;
    }
    ~exhaustion_met_at_end()
    {
        std::set_new_handler(handler_);
        memory_is_exhausted_if(noted);
    }
    exhaustion_met_at_end(const exhaustion_met_at_end &) = delete;
    exhaustion_met_at_end &operator=(const exhaustion_met_at_end &) = delete;

  private:
    static void note() noexcept
    {
        noted = true;
    }

    inline static bool noted = false;
    std::new_handler handler_;
};

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

/// Like plain_ptr, for an object with a destructor.
struct destroy_and_free {
    template <typename T>
    void operator()(T *object) const noexcept
    {
        std::destroy_at(object);
        std::free(object);
    }
};
template <typename T>
using nothrow_ptr = std::unique_ptr<T, destroy_and_free>;

template <typename T>
nothrow_ptr<T> try_make() noexcept
{
    static_assert(std::is_nothrow_default_constructible_v<T>);
    void *memory = std::malloc(sizeof(T));
    memory_is_exhausted_if(memory == nullptr);
    return nothrow_ptr<T>{memory == nullptr ? nullptr : ::new (memory) T{}};
}
