#include "http_server/give_back.h"

#include <malloc.h>

#include "handles/libevent.h"
#include "http_server/log.h"
#include "logger/fatal.h"
#include "malloc/tls_rooms.h"

namespace {

constexpr timeval soon{1, 0};

struct module_state {
    event_ptr memory_return;
};
module_state state;

void on_memory_return(evutil_socket_t, short, void *) noexcept
{
    tls_rooms_trim();
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

} // namespace

void http_give_back_open(event_base *base)
{
    state.memory_return.reset(evtimer_new(base, on_memory_return, nullptr));
    REQUIRE_MEMORY(state.memory_return, "memory_return");
}

void http_give_back_soon()
{
    if (state.memory_return != nullptr &&
        evtimer_pending(state.memory_return.get(), nullptr) == 0) {
        evtimer_add(state.memory_return.get(), &soon);
    }
}
