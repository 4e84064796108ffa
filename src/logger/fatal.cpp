#include "logger/fatal.h"

#include <cstdio>
#include <new>

#include "handles/allocators.h"

namespace {

constexpr char log_category[] = "memory";

struct module_state {
    const char *function = "operator new";
    const char *object = "memory";
};
module_state state;

void out_of_memory()
{
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

void fatal_install_memory_handlers()
{
    std::set_new_handler(out_of_memory);
    checked_allocator<out_of_memory>::install();
}
