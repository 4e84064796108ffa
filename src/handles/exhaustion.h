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
    exhaustion_met_at_end() noexcept;
    ~exhaustion_met_at_end();
    exhaustion_met_at_end(const exhaustion_met_at_end &) = delete;
    exhaustion_met_at_end &operator=(const exhaustion_met_at_end &) = delete;

  private:
    std::new_handler handler_;
};
