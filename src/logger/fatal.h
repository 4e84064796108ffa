#pragma once

#include <cstdlib>

#include "logger/common_logger.h"

/// Programming errors and exhausted memory: one ERROR line, then abort(). Input is never fatal.
/// The file that uses these macros has a `log_category` (see common_logger.h).

// clang-format off
/// One ERROR line of the caller's own text, on standard error when the log does not have it; then
/// abort().
#define FATAL(...)                                                                                \
    do {                                                                                          \
        LOG_REASON(LOG_LEVEL_ERROR, __VA_ARGS__);                                                                   \
        std::abort();                                                                             \
    } while (false)

/// A null that the caller promised not to pass: REQUIRE_NOT_NULL(config, "config").
#define REQUIRE_NOT_NULL(pointer, name)                                                           \
    do {                                                                                          \
        if ((pointer) == nullptr) {                                                               \
            fatal_null_reference(log_category, __FILE__, __LINE__, __func__, name);               \
        }                                                                                         \
    } while (false)

/// A C allocation that failed: REQUIRE_MEMORY(array, "bssids").
#define REQUIRE_MEMORY(pointer, name)                                                             \
    do {                                                                                          \
        if ((pointer) == nullptr) {                                                               \
            fatal_not_enough_memory(log_category, __FILE__, __LINE__, __func__, name);            \
        }                                                                                         \
    } while (false)

/// A call that cannot fail did: REQUIRE_CALL(rc == 0, "event_add(watcher, NULL)", rc).
#define REQUIRE_CALL(condition, call, result)                                                     \
    REQUIRE_CALL_BY(__func__, condition, call, result)

/// The same under the name of the public function that the call serves.
#define REQUIRE_CALL_BY(function, condition, call, result)                                        \
    do {                                                                                          \
        if (!(condition)) {                                                                       \
            fatal_call(log_category, __FILE__, __LINE__, function, call, (result));               \
        }                                                                                         \
    } while (false)
// clang-format on

/// What these macros say, and the end. They are functions since 230 places in the daemon have one of them.
[[noreturn]] void fatal_null_reference(const char *category, const char *file, int line,
                                       const char *function, const char *name);
[[noreturn]] void fatal_not_enough_memory(const char *category, const char *file, int line,
                                          const char *function, const char *name);
[[noreturn]] void fatal_call(const char *category, const char *file, int line, const char *function,
                             const char *call, int result);

/// Names the object that the C++ allocations of this scope make, so that the fatal line of
/// exhausted memory names it:
///     const allocation_name naming{__func__, "d->ip"};
/// Scopes nest. The texts are literals.
class allocation_name {
  public:
    allocation_name(const char *function, const char *object) noexcept;
    ~allocation_name();
    allocation_name(const allocation_name &) = delete;
    allocation_name &operator=(const allocation_name &) = delete;

  private:
    const char *outer_function_;
    const char *outer_object_;
};

/// Makes exhausted memory the fatal line "%s: %s is null: %s" with the innermost allocation_name (or
/// the allocator itself) and "not enough memory", whoever in the process asked for it: `new`, a
/// library, or the C library. Called first in main.
void fatal_install_memory_handler();
