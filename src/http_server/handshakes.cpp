#include "http_server/handshakes.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "handles/evhtp.h"
#include "http_server/log.h"
#include "http_server/refusals.h"
#include "http_server/tls.h"
#include "logger/fatal.h"
#include "story/story.h"

namespace {

using phase = http_handshake::phase;

struct module_state {
    http_handshake_limits limits;
    std::vector<http_handshake *> handshakes; // in the order in which they came
    event_ptr check;                          // waits while a handshake waits
};
module_state state;

std::size_t under_way(const in_addr_t *address = nullptr)
{
    return static_cast<std::size_t>(std::count_if(
        state.handshakes.begin(), state.handshakes.end(), [address](const auto *handshake) {
            return handshake->now == phase::under_way &&
                   (address == nullptr || handshake->address == *address);
        }));
}

bool any_waits(const in_addr_t *address = nullptr)
{
    return std::any_of(state.handshakes.begin(), state.handshakes.end(),
                       [address](const auto *handshake) {
                           return handshake->now == phase::waits &&
                                  (address == nullptr || handshake->address == *address);
                       });
}

/// The first among those whose addresses have the fewest under way; null when none waits or none may
/// begin.
http_handshake *next_to_begin()
{
    http_handshake *found = nullptr;
    std::size_t fewest = state.limits.of_address;
    for (http_handshake *const handshake : state.handshakes) {
        if (handshake->now == phase::waits && under_way(&handshake->address) < fewest) {
            found = handshake;
            fewest = under_way(&handshake->address);
        }
    }
    return under_way() < state.limits.total ? found : nullptr;
}

void begin(http_handshake *handshake)
{
    handshake->now = phase::under_way;
    handshake->begin = std::chrono::steady_clock::now();
    bufferevent_enable(handshake->connection->bev, EV_READ);
    http_tls_read(handshake->connection->bev);
}

void go_on()
{
    while (http_handshake *const next = next_to_begin()) {
        begin(next);
    }
    if (state.check != nullptr && any_waits() && evtimer_pending(state.check.get(), nullptr) == 0) {
        constexpr timeval soon{0, 250 * 1000};
        const int rc = evtimer_add(state.check.get(), &soon);
        REQUIRE_CALL(rc == 0, "evtimer_add(check, &soon)", rc);
    }
}

/// Its time is up, and another could begin in its place.
bool is_in_the_way(const http_handshake *handshake)
{
    const auto limit = std::chrono::seconds{state.limits.time.tv_sec} +
                       std::chrono::microseconds{state.limits.time.tv_usec};
    return handshake->now == phase::under_way &&
           std::chrono::steady_clock::now() - handshake->begin >= limit &&
           (any_waits(&handshake->address) || (any_waits() && under_way() >= state.limits.total));
}

void on_check(evutil_socket_t, short, void *) noexcept
{
    auto found = state.handshakes.begin();
    while ((found = std::find_if(state.handshakes.begin(), state.handshakes.end(),
                                 is_in_the_way)) != state.handshakes.end()) {
        story_visit_came({.address = (*found)->address,
                          .check = story_connections,
                          .why = "its TLS handshake was slow, and another waited for its turn"});
        if (http_refusals_tell((*found)->address)) {
            LOG_WARN("%s - closing a connection, another waits for its handshake: %s", __func__,
                     http_refusals_text((*found)->address));
        }
        evhtp_close((*found)->connection); // lets the other begin
    }
    go_on();
}

void on_first_bytes(evutil_socket_t, short, void *argument) noexcept
{
    auto *const handshake = static_cast<http_handshake *>(argument);
    // It goes after libevent's own read event has come: the kernel need not know that they changed places.
    const event_ptr first_bytes = std::move(handshake->first_bytes);
    handshake->now = phase::waits;
    go_on();
}

} // namespace

void http_handshakes_open(event_base *base, const http_handshake_limits &limits)
{
    state.limits = limits;
    state.check.reset(evtimer_new(base, on_check, nullptr));
    REQUIRE_MEMORY(state.check, "check");
}

void http_handshakes_close()
{
    state.limits.total = 0;
    state.check.reset();
}

void http_handshake_await(http_handshake *handshake)
{
    evhtp_connection_t *const connection = handshake->connection;
    bufferevent_disable(connection->bev, EV_READ);
    handshake->first_bytes.reset(event_new(connection->evbase, connection->sock,
                                           EV_READ | EV_PERSIST, on_first_bytes, handshake));
    REQUIRE_MEMORY(handshake->first_bytes, "first_bytes");
    const int rc = event_add(handshake->first_bytes.get(), nullptr);
    REQUIRE_CALL(rc == 0, "event_add(first_bytes, NULL)", rc);
    state.handshakes.push_back(handshake);
}

void http_handshake_end(http_handshake *handshake)
{
    handshake->first_bytes.reset();
    if (std::erase(state.handshakes, handshake) != 0) {
        go_on();
    }
}
