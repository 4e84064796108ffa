#include "logger/fatal.h"

#include <exception>
#include <new>

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
    common_logger_read_time_zone();
}

#ifdef __GLIBCXX__
/// Where the C++ library ends the process, for instance because an index was out of range, or memory
/// was exhausted before main. Its own version prints the exception's name, and brings 47 kB that
/// know how to write names.
void __gnu_cxx::__verbose_terminate_handler()
{
    FATAL("%s: call failed: %s result: %i loc: %s:%i", "std::terminate", "the C++ library", 0,
          __FILE__, __LINE__);
}
#endif
