#pragma once

#include <new>

/// For code that meets with exhausted memory outside of `new`: does what `new` does. In the daemon that
/// is the fatal line (logger/fatal.h); without a new-handler it returns. What asks the C allocator does
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
