#include "http_server/give_back.h"

#include <malloc.h>

#include "handles/libevent.h"
#include "http_server/log.h"
#include "logger/fatal.h"
#include "malloc/tls_rooms.h"

namespace {

constexpr timeval soon{1, 0};

/// A host may make and lose a hundred connections per second. What they leave behind may not add up for a
/// second: it would be as much as all of them have.
constexpr unsigned many_ends = 4;
constexpr timeval very_soon{0, 5 * 1000};

struct module_state {
    event_ptr memory_return;
    event_ptr heap_return;
    unsigned ends = 0; // of connections, since the heap was given back
};
module_state state;

void give_back_heap() noexcept
{
    state.ends = 0;
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

void on_heap_return(evutil_socket_t, short, void *) noexcept
{
    give_back_heap();
}

void on_memory_return(evutil_socket_t, short, void *) noexcept
{
    tls_rooms_trim();
    give_back_heap();
}

void begin(event *timer, const timeval &time)
{
    if (timer != nullptr && evtimer_pending(timer, nullptr) == 0) {
        const int rc = evtimer_add(timer, &time);
        REQUIRE_CALL(rc == 0, "evtimer_add(timer, &time)", rc);
    }
}

} // namespace

void http_give_back_open(event_base *base)
{
    state.memory_return.reset(evtimer_new(base, on_memory_return, nullptr));
    REQUIRE_MEMORY(state.memory_return, "memory_return");
    state.heap_return.reset(evtimer_new(base, on_heap_return, nullptr));
    REQUIRE_MEMORY(state.heap_return, "heap_return");
}

void http_give_back_soon()
{
    begin(state.memory_return.get(), soon);
}

void http_give_back_after_end()
{
    http_give_back_soon();
    if (++state.ends >= many_ends) {
        begin(state.heap_return.get(), very_soon);
    }
}
