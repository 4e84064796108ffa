#include "http_server/give_back.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "handles/libevent.h"
#include "http_server/log.h"
#include "logger/fatal.h"
#include "malloc/tls_rooms.h"

namespace {

constexpr timeval soon{1, 0};

/// What a phone takes for its visit stays at the end of the heap for the next one. To give it back would take six
/// system calls, and the next visit would have a dozen page faults.
constexpr std::size_t kept = std::size_t{64} * 1024;

/// As much again, which four connections have. A host may make and lose a thousand connections per second. What
/// they leave may not add up for a second, so this much more heap is given back very soon.
constexpr std::size_t much_more = 2 * kept;
constexpr timeval very_soon{0, 5 * 1000};

/// Nothing has been given back: the start has freed much, and of that nothing is kept.
constexpr std::uintptr_t never = std::numeric_limits<std::uintptr_t>::max();

struct module_state {
    event_ptr memory_return;
    event_ptr heap_return;
    std::uintptr_t lowest = 0; // where the heap ended when all had been given back
    /// The same, until the heap has grown much: then where it ended when that was acted on last.
    std::uintptr_t highest = 0;
};
module_state state;

/// Of glibc, which knows it without asking the kernel. With another C library only what the start has left in
/// rooms is given back: it has no function to give back the heap, and of rooms few stay.
std::uintptr_t heap_end() noexcept
{
#ifdef __GLIBC__
    return reinterpret_cast<std::uintptr_t>(sbrk(0));
#else
    return 0;
#endif
}

void give_back_heap([[maybe_unused]] std::size_t keep) noexcept
{
#ifdef __GLIBC__
    malloc_trim(keep);
#endif
}

void on_heap_return(evutil_socket_t, short, void *) noexcept
{
    give_back_heap(kept);
}

void on_memory_return(evutil_socket_t, short, void *) noexcept
{
    tls_rooms_trim();
    give_back_heap(state.lowest == never ? 0 : kept);
    state.lowest = std::min(state.lowest, heap_end());
    state.highest = state.lowest;
}

/// Connections that stay lift the end of the heap. It is compared with the lowest one, so that what they had is
/// given back when they have left.
bool has_grown_much() noexcept
{
    return state.highest != state.lowest || heap_end() >= state.lowest + much_more;
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
    state.lowest = never;
    state.highest = heap_end();
}

void http_give_back_soon()
{
    if (has_grown_much()) {
        begin(state.memory_return.get(), soon);
    }
}

void http_give_back_after_end()
{
    if (const std::uintptr_t end = heap_end(); end >= state.highest + much_more) {
        state.highest = end;
        begin(state.heap_return.get(), very_soon);
    }
    http_give_back_soon();
}
