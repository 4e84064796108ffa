#include "allocation_meter.h"

#include <algorithm>
#include <cstdlib>

extern "C" {
// Of the sanitizers' runtime; absent without one.
[[gnu::weak]] int
__sanitizer_install_malloc_and_free_hooks(void (*malloc_hook)(const volatile void *, std::size_t),
                                          void (*free_hook)(const volatile void *));
[[gnu::weak]] std::size_t __sanitizer_get_allocated_size(const volatile void *memory);
}

namespace {

struct module_state {
    bool counts = false;
    long now = 0;
    long most = 0;
};
module_state state;

void on_malloc(const volatile void *, std::size_t size)
{
    if (state.counts) {
        state.now += static_cast<long>(size);
        state.most = std::max(state.most, state.now);
    }
}

void on_free(const volatile void *memory)
{
    if (state.counts && memory != nullptr) {
        state.now -= static_cast<long>(__sanitizer_get_allocated_size(memory));
    }
}

bool hooks_installed()
{
    return __sanitizer_install_malloc_and_free_hooks != nullptr &&
           __sanitizer_install_malloc_and_free_hooks(on_malloc, on_free) != 0;
}

} // namespace

allocation_meter::allocation_meter()
{
    static const bool installed = hooks_installed();
    state = {installed};
}

allocation_meter::~allocation_meter()
{
    state.counts = false;
}

std::size_t allocation_meter::peak() const
{
    return static_cast<std::size_t>(state.most);
}

long allocation_meter::left() const
{
    return state.now;
}
