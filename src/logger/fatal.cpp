#include "logger/fatal.h"

#include <cstdio>
#include <ctime>
#include <exception>
#include <new>

#include "handles/memory.h"

namespace {

constexpr char log_category[] = "memory";

struct module_state {
    const char *function = "malloc";
    const char *object = "memory";
};
module_state state;

void out_of_memory()
{
    // What the line itself asks for, it does without.
    std::set_new_handler(nullptr);
    if (!common_logger_is_enabled()) {
        std::fputs("not enough memory\n", stderr);
    }
    FATAL("%s: %s is null: %s", state.function, state.object, "not enough memory");
}

} // namespace

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
    // The C library reads the time zone once, under a lock that the time of a log line waits for.
    const exhaustion_met_at_end not_under_the_lock;
    tzset();
}

#ifdef __GLIBCXX__
/// Where the C++ library ends the process, for instance because an index was out of range, or memory
/// was exhausted before main. Its own version prints the exception's name, and brings 47 kB that
/// know how to write names.
void __gnu_cxx::__verbose_terminate_handler()
{
    if (!common_logger_is_enabled()) {
        std::fputs("std::terminate: call failed: the C++ library\n", stderr);
    }
    FATAL("%s: call failed: %s result: %i loc: %s:%i", "std::terminate", "the C++ library", 0,
          __FILE__, __LINE__);
}
#endif
