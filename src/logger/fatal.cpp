#include "logger/fatal.h"

#include <exception>
#include <new>

namespace {

constexpr char log_category[] = "memory";

constexpr char is_null[] = "%s: %s is null: %s";
constexpr char has_failed[] = "%s: call failed: %s result: %i loc: %s:%i";
constexpr char no_memory[] = "not enough memory";

struct module_state {
    const char *function = "malloc";
    const char *object = "memory";
};
module_state state;

void out_of_memory()
{
    // What the line itself asks for, it does without.
    std::set_new_handler(nullptr);
    FATAL(is_null, state.function, state.object, no_memory);
}

} // namespace

void fatal_null_reference(const char *category, const char *file, int line, const char *function,
                          const char *name)
{
    common_logger_tell(category, LOG_LEVEL_ERROR, file, line, is_null, function, name,
                       "null reference");
    std::abort();
}

void fatal_not_enough_memory(const char *category, const char *file, int line, const char *function,
                             const char *name)
{
    common_logger_tell(category, LOG_LEVEL_ERROR, file, line, is_null, function, name, no_memory);
    std::abort();
}

void fatal_call(const char *category, const char *file, int line, const char *function,
                const char *call, int result)
{
    common_logger_tell(category, LOG_LEVEL_ERROR, file, line, has_failed, function, call, result,
                       file, line);
    std::abort();
}

allocation_name::allocation_name(const char *function, const char *object) noexcept
    : outer_function_{state.function}, outer_object_{state.object}
{
    state = {function, object};
}

allocation_name::~allocation_name()
{
    state = {outer_function_, outer_object_};
}

void fatal_install_memory_handler()
{
    std::set_new_handler(out_of_memory);
    common_logger_read_time_zone();
}

#ifdef __GLIBCXX__
/// Where the C++ library ends the process, for instance because an index was out of range, or memory
/// was exhausted before main. Its own version prints the exception's name, and brings 47 kB that
/// know how to write names.
void __gnu_cxx::__verbose_terminate_handler()
{
    fatal_call(log_category, __FILE__, __LINE__, "std::terminate", "the C++ library", 0);
}
#endif
