#include "logger/fatal.h"

#include <cjson/cJSON.h>

#include <new>

namespace {

constexpr char log_category[] = "memory";

struct module_state {
    const char *function = "operator new";
    const char *object = "memory";
};
module_state state;

void out_of_memory()
{
    FATAL("%s: %s is null: %s", state.function, state.object, "not enough memory");
}

void *json_malloc(std::size_t size) noexcept
{
    void *memory = std::malloc(size);
    if (memory == nullptr) {
        out_of_memory();
    }
    return memory;
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
    cJSON_Hooks hooks{json_malloc, std::free};
    cJSON_InitHooks(&hooks);
}
