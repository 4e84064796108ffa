#include "http_server/give_back.h"

#include <malloc.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "handles/libevent.h"
#include "http_server/log.h"
#include "logger/fatal.h"
#include "malloc/tls_rooms.h"

namespace {

constexpr timeval soon{1, 0};

/// A host may make and lose a thousand connections per second. While each takes the room that another has
/// left, nothing is given back: only to take it again would cost more than 5 % of a handshake. But what they
/// leave may not add up for a second, so this much more heap, as four connections have, is given back very soon.
constexpr std::size_t much_more = std::size_t{64} * 1024;
constexpr timeval very_soon{0, 5 * 1000};

struct module_state {
    event_ptr memory_return;
    event_ptr heap_return;
    std::uintptr_t heap_end = 0; // the highest that was acted on, since all was given back
};
module_state state;

/// Of glibc, which knows it without asking the kernel. With another C library nothing is given back here.
std::uintptr_t heap_end() noexcept
{
#ifdef __GLIBC__
    return reinterpret_cast<std::uintptr_t>(sbrk(0));
#else
    return 0;
#endif
}

void give_back_heap() noexcept
{
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
    state.heap_end = heap_end();
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
    state.heap_end = heap_end();
}

void http_give_back_soon()
{
    begin(state.memory_return.get(), soon);
}

void http_give_back_after_end()
{
    http_give_back_soon();
    if (const std::uintptr_t end = heap_end(); end >= state.heap_end + much_more) {
        state.heap_end = end;
        begin(state.heap_return.get(), very_soon);
    }
}
