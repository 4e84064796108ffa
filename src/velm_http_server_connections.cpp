#include "velm_http_server_connections.h"

#include <event2/util.h>
#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "handles/evhtp.h"
#include "handles/libevent.h"
#include "logger/fatal.h"
#include "velm_http_server_handshakes.h"
#include "velm_http_server_intake.h"
#include "velm_http_server_tls.h"

namespace {

constexpr char log_category[] = "velm_http_server";

struct server_connection {
    evhtp_connection_t *connection = nullptr; // the library's; it tells us when it goes
    in_addr_t address = 0;
    http_intake intake;
    std::size_t counted = 0; // of its memory in the sum of all
    http_tls_stream tls;
    http_handshake handshake;
    event_ptr timer;
    event_ptr next_turn; // a timer without delay
    bool reply_overdue = false;
};

struct module_state {
    http_connection_limits limits;
    evhtp_t *htp = nullptr;
    std::vector<std::unique_ptr<server_connection>> connections;
    std::size_t held = 0; // by all of them together
    event_ptr listener_wake;
    event_ptr memory_return;
    event_ptr memory_check;
};
module_state state;

in_addr_t peer_address(const evhtp_connection_t *connection)
{
    sockaddr_in address{};
    std::memcpy(&address, connection->saddr, sizeof address);
    return address.sin_family == AF_INET ? address.sin_addr.s_addr : 0;
}

/// What handshakes and requests have freed lies between what lives on, where the C library keeps it.
void on_memory_return(evutil_socket_t, short, void *) noexcept
{
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

/// Once a second at most, and never while no connection comes or goes.
void return_memory_soon()
{
    constexpr timeval soon{1, 0};
    if (state.memory_return != nullptr &&
        evtimer_pending(state.memory_return.get(), nullptr) == 0) {
        evtimer_add(state.memory_return.get(), &soon);
    }
}

void restart_timer(server_connection *peer)
{
    peer->reply_overdue = false;
    const int rc = evtimer_add(peer->timer.get(), &state.limits.request_time);
    REQUIRE_CALL(rc == 0, "evtimer_add(timer, &request_time)", rc);
}

/// After every step that may have changed it: to add up all connections each time would cost more than
/// the step.
void count_held(server_connection *peer)
{
    const std::size_t size = http_intake_size(&peer->intake) + http_tls_size(&peer->tls);
    state.held += size - peer->counted;
    peer->counted = size;
}

std::size_t held_by(in_addr_t address)
{
    std::size_t sum = 0;
    for (const auto &peer : state.connections) {
        sum += peer->address == address ? peer->counted : 0;
    }
    return sum;
}

/// To close one that holds less gives hardly anything back: it would only be the newcomer beside
/// others whose requests are checked.
constexpr std::size_t worth_closing = 4 * 1024;

/// Of the address that holds most the connection that holds most; one whose request is checked
/// holds no more than that request. Null when there is none to choose.
server_connection *greediest()
{
    server_connection *found = nullptr;
    std::pair<std::size_t, std::size_t> most{0, 0};
    for (const auto &peer : state.connections) {
        const std::pair<std::size_t, std::size_t> size{held_by(peer->address), peer->counted};
        if (!http_intake_is_paused(&peer->intake) && peer->counted >= worth_closing &&
            size > most) {
            found = peer.get();
            most = size;
        }
    }
    return found;
}

void keep_within_memory()
{
    const http_connection_limits &limits = state.limits;
    while (state.held > std::min(limits.held, limits.held_of_address)) {
        const server_connection *const victim = greediest();
        const std::size_t of_address = victim == nullptr ? 0 : held_by(victim->address);
        if (victim == nullptr ||
            (state.held <= limits.held && of_address <= limits.held_of_address)) {
            return;
        }
        LOG_WARN("%s - closing a connection, together they hold %zu bytes, its address %zu",
                 __func__, state.held, of_address);
        evhtp_close(victim->connection);
    }
}

void on_memory_check(evutil_socket_t, short, void *) noexcept
{
    for (const auto &peer : state.connections) {
        count_held(peer.get());
    }
    keep_within_memory();
}

/// Later in this turn: it may end any connection.
void count_memory_soon() noexcept
{
    event_active(state.memory_check.get(), EV_TIMEOUT, 1);
}

void begin_to_linger(server_connection *peer)
{
    const int rc = evtimer_add(peer->timer.get(), &state.limits.linger_time);
    REQUIRE_CALL(rc == 0, "evtimer_add(timer, &linger_time)", rc);
}

void ask_for_next_turn(server_connection *peer)
{
    constexpr timeval now{};
    const int rc = evtimer_add(peer->next_turn.get(), &now);
    REQUIRE_CALL(rc == 0, "evtimer_add(next_turn, &now)", rc);
}

/// While an answer is on its way not before the next turn: the end of a client that has said all
/// must not overtake it.
void read_on(server_connection *peer)
{
    if (!http_tls_has_more(&peer->tls)) {
        return;
    }
    if (peer->intake.phase == message_phase::answering) {
        ask_for_next_turn(peer);
    } else {
        http_tls_read(peer->connection->bev);
    }
}

void go_on(server_connection *peer, intake_result result)
{
    if (result == intake_result::ended) {
        return;
    }
    count_held(peer);
    read_on(peer);
    switch (result) {
    case intake_result::has_next:
        ask_for_next_turn(peer);
        [[fallthrough]];
    case intake_result::moved_on:
        restart_timer(peer);
        break;
    case intake_result::refused:
        begin_to_linger(peer);
        break;
    case intake_result::ended:
    case intake_result::waits:
        break;
    }
}

void on_read(bufferevent *, void *argument) noexcept
{
    auto *const peer = static_cast<server_connection *>(argument);
    go_on(peer, http_intake_read(&peer->intake));
    keep_within_memory(); // which may be the end of any of them
}

void on_write(bufferevent *, void *argument) noexcept
{
    auto *const peer = static_cast<server_connection *>(argument);
    go_on(peer, http_intake_written(&peer->intake));
}

void on_next_turn(evutil_socket_t, short, void *argument) noexcept
{
    auto *const peer = static_cast<server_connection *>(argument);
    if (peer->intake.phase == message_phase::answering) {
        http_tls_read(peer->connection->bev);
    } else {
        go_on(peer, http_intake_next(&peer->intake));
    }
}

void on_event(bufferevent *bev, short events, void *argument) noexcept
{
    auto *const peer = static_cast<server_connection *>(argument);
    if (peer->intake.phase == message_phase::refused) {
        evhtp_close(peer->connection); // the client has ended, or cannot be written to
        return;
    }
    if ((events & BEV_EVENT_CONNECTED) != 0) {
        http_tls_connected(bev);
        read_on(peer);
        http_handshake_end(&peer->handshake);
    }
    if ((events & BEV_EVENT_EOF) != 0 && peer->intake.phase == message_phase::head) {
        http_tls_end_quietly(&peer->tls);
    }
    const library_callbacks &library = peer->intake.library;
    library.event(bev, events, library.argument);
}

void on_time_up(evutil_socket_t, short, void *argument) noexcept
{
    auto *const peer = static_cast<server_connection *>(argument);
    if (http_intake_is_paused(&peer->intake)) {
        restart_timer(peer);
        return;
    }
    if (peer->intake.phase == message_phase::answering && !peer->reply_overdue) {
        // The request may have been paused until a moment ago.
        restart_timer(peer);
        peer->reply_overdue = true;
        return;
    }
    LOG_DEBUG("%s - closing a connection that let its time pass", __func__);
    evhtp_close(peer->connection);
}

evhtp_res on_connection_fini(evhtp_connection_t *, void *argument) noexcept
{
    auto *const peer = static_cast<server_connection *>(argument);
    http_intake_end(&peer->intake);
    state.held -= peer->counted;
    http_tls_end(&peer->tls);
    http_handshake_end(&peer->handshake);
    return_memory_soon();
    std::erase_if(state.connections, [peer](const auto &other) { return other.get() == peer; });
    return EVHTP_RES_OK;
}

evhtp_res on_pre_accept(evhtp_connection_t *connection, void *) noexcept
{
    fcntl(connection->sock, F_SETFD, FD_CLOEXEC); // the only flag of a descriptor
    const in_addr_t address = peer_address(connection);
    const auto of_address = static_cast<std::size_t>(
        std::count_if(state.connections.begin(), state.connections.end(),
                      [address](const auto &peer) { return peer->address == address; }));
    if (state.connections.size() >= state.limits.total || of_address >= state.limits.per_address) {
        LOG_WARN("%s - too many connections: %zu, %zu of this address", __func__,
                 state.connections.size(), of_address);
        return EVHTP_RES_ERROR;
    }
    return EVHTP_RES_OK;
}

void begin_tls(server_connection *peer)
{
    peer->tls.tls = peer->connection->ssl;
    peer->tls.socket = peer->connection->sock;
    peer->tls.handshake_bytes = state.limits.handshake_bytes;
    peer->tls.keeps_some = count_memory_soon;
    http_tls_begin(&peer->tls, peer->connection->bev);
    peer->handshake.connection = peer->connection;
    peer->handshake.address = peer->address;
    http_handshake_await(&peer->handshake);
}

evhtp_res on_post_accept(evhtp_connection_t *connection, void *) noexcept
{
    auto owned = std::make_unique<server_connection>();
    server_connection *const peer = owned.get();
    peer->connection = connection;
    peer->address = peer_address(connection);
    peer->timer.reset(evtimer_new(connection->evbase, on_time_up, peer));
    REQUIRE_MEMORY(peer->timer, "timer");
    peer->next_turn.reset(evtimer_new(connection->evbase, on_next_turn, peer));
    REQUIRE_MEMORY(peer->next_turn, "next_turn");
    state.connections.push_back(std::move(owned));
    const int rc =
        evhtp_connection_hook(connection, evhtp_hook_on_connection_fini, on_connection_fini, peer);
    REQUIRE_CALL(rc == 0, "evhtp_connection_set_hook(on_connection_fini)", rc);
    http_intake_start(&peer->intake, connection, {on_read, on_write, on_event, peer});
    if (connection->ssl != nullptr) { // the fuzzer speaks plain HTTP
        begin_tls(peer);
    }
    restart_timer(peer);
    return_memory_soon();
    return EVHTP_RES_OK;
}

void on_listener_wake(evutil_socket_t, short, void *) noexcept
{
    evconnlistener_enable(state.htp->server);
}

void on_accept_error(evconnlistener *listener, void *) noexcept
{
    LOG_WARN("%s - cannot accept: %s", __func__, std::strerror(errno));
    evconnlistener_disable(listener);
    const int rc = evtimer_add(state.listener_wake.get(), &state.limits.listener_rest);
    REQUIRE_CALL(rc == 0, "evtimer_add(listener_wake, &listener_rest)", rc);
}

} // namespace

void http_connections_attach(evhtp_t *htp, const http_connection_limits &limits)
{
    REQUIRE_NOT_NULL(htp, "htp");
    state.limits = limits;
    state.htp = htp;
    // The library refuses a body that reaches the number, where ours is the longest served.
    evhtp_set_max_body_size(htp, http_server_max_body_size + 1);
    evhtp_set_pre_accept_cb(htp, on_pre_accept, nullptr);
    evhtp_set_post_accept_cb(htp, on_post_accept, nullptr);
}

void http_connections_watch_listener()
{
    REQUIRE_NOT_NULL(state.htp, "htp");
    state.listener_wake.reset(evtimer_new(state.htp->evbase, on_listener_wake, nullptr));
    REQUIRE_MEMORY(state.listener_wake, "listener_wake");
    evconnlistener_set_error_cb(state.htp->server, on_accept_error);
    state.memory_return.reset(evtimer_new(state.htp->evbase, on_memory_return, nullptr));
    REQUIRE_MEMORY(state.memory_return, "memory_return");
    state.memory_check.reset(evtimer_new(state.htp->evbase, on_memory_check, nullptr));
    REQUIRE_MEMORY(state.memory_check, "memory_check");
    http_handshakes_open(state.htp->evbase, state.limits.handshakes);
    return_memory_soon(); // after what the start has freed
}

void http_connections_close()
{
    state.listener_wake.reset();
    evhtp_unbind_socket(state.htp);
    http_handshakes_close();
    while (!state.connections.empty()) {
        evhtp_close(state.connections.back()->connection);
    }
    state.htp = nullptr;
}

std::size_t http_connections_count()
{
    return state.connections.size();
}
