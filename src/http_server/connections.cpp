#include "http_server/connections.h"

#include <event2/bufferevent_ssl.h>
#include <event2/util.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "handles/evhtp.h"
#include "handles/libevent.h"
#include "http_server/budget.h"
#include "http_server/give_back.h"
#include "http_server/handshakes.h"
#include "http_server/intake.h"
#include "http_server/listener.h"
#include "http_server/log.h"
#include "http_server/refusals.h"
#include "http_server/tls.h"
#include "logger/fatal.h"
#include "metrics/metrics.h"
#include "story/story.h"

namespace {

struct server_connection {
    evhtp_connection_t *connection = nullptr; // the library's; it tells us when it goes
    in_addr_t address = 0;
    http_intake intake;
    http_budget_share share;
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
    event_ptr memory_check;
};
module_state state;

in_addr_t peer_address(const evhtp_connection_t *connection)
{
    sockaddr_in address{};
    std::memcpy(&address, connection->saddr, sizeof address);
    return address.sin_family == AF_INET ? address.sin_addr.s_addr : 0;
}

void restart_timer(server_connection *peer)
{
    peer->reply_overdue = false;
    const int rc = evtimer_add(peer->timer.get(), &state.limits.request_time);
    REQUIRE_CALL(rc == 0, "evtimer_add(timer, &request_time)", rc);
}

void count_held(server_connection *peer)
{
    http_budget_count(&peer->share, http_intake_size(&peer->intake) + http_tls_size(&peer->tls));
}

/// Before the library gets more of a request, and keeps it.
void make_room(void *argument) noexcept
{
    count_held(static_cast<server_connection *>(argument));
    http_budget_keep();
}

void on_memory_check(evutil_socket_t, short, void *) noexcept
{
    http_tls_give_back();
    for (const auto &peer : state.connections) {
        count_held(peer.get());
    }
    http_budget_keep();
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
    if (evtimer_pending(peer->next_turn.get(), nullptr) != 0) {
        return; // to add it again would take it off the events of this turn, in each turn
    }
    constexpr timeval now{};
    const int rc = evtimer_add(peer->next_turn.get(), &now);
    REQUIRE_CALL(rc == 0, "evtimer_add(next_turn, &now)", rc);
}

void on_turn_is_spent(void *argument) noexcept
{
    ask_for_next_turn(static_cast<server_connection *>(argument));
}

/// While an answer is on its way not before the next turn: the end of a client that has said all
/// must not overtake it.
void read_on(server_connection *peer)
{
    if (!http_tls_has_more(&peer->tls)) {
        http_tls_next_turn(&peer->tls); // the kernel tells no earlier that more has come
    } else if (peer->intake.phase == message_phase::answering ||
               http_tls_turn_is_over(&peer->tls)) {
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
    http_tls_brought_data(&peer->tls);
    go_on(peer, http_intake_read(&peer->intake));
    http_budget_keep(); // which may be the end of any of them
}

void on_write(bufferevent *, void *argument) noexcept
{
    auto *const peer = static_cast<server_connection *>(argument);
    go_on(peer, http_intake_written(&peer->intake));
}

void on_next_turn(evutil_socket_t, short, void *argument) noexcept
{
    auto *const peer = static_cast<server_connection *>(argument);
    http_tls_next_turn(&peer->tls);
    if (peer->intake.phase == message_phase::head && !peer->intake.held.empty()) {
        go_on(peer, http_intake_next(&peer->intake));
        http_budget_keep();
    } else {
        http_tls_read(peer->connection->bev);
    }
}

/// The reason is OpenSSL's, whichever side has refused. Who just leaves has refused nothing.
void log_failed_handshake(const server_connection *peer)
{
    const unsigned long code = bufferevent_get_openssl_error(peer->connection->bev);
    const char *const reason = code == 0 ? nullptr : ERR_reason_error_string(code);
    if (reason == nullptr || !peer->tls.shakes_hands || peer->tls.ended) {
        return;
    }
    metrics_count(metric::connections_without_handshake);
    story_visit_came({.address = peer->address, .check = story_tls, .why = reason});
    if (http_refusals_tell(peer->address)) {
        LOG_WARN("%s - TLS handshake failed, %s: %s", __func__, reason,
                 http_refusals_text(peer->address));
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
    if ((events & BEV_EVENT_ERROR) != 0) {
        log_failed_handshake(peer);
    }
    if ((events & BEV_EVENT_EOF) != 0 && peer->intake.phase == message_phase::head) {
        http_tls_end_quietly(&peer->tls);
    }
    const library_callbacks &library = peer->intake.library;
    library.event(bev, events, library.argument);
}

/// A client that keeps its connection for later does nothing wrong, and of one that was refused the log
/// has told already.
void log_time_up(const server_connection *peer)
{
    const bool is_idle = peer->intake.phase == message_phase::head && peer->intake.held.empty() &&
                         !peer->tls.shakes_hands;
    if (is_idle || peer->intake.phase == message_phase::refused) {
        LOG_DEBUG("%s - closing a connection that let its time pass", __func__);
        return;
    }
    metrics_count(metric::connections_over_time);
    story_visit_came({.address = peer->address,
                      .check = story_connections,
                      .why = "it let the time for its request pass"});
    if (http_refusals_tell(peer->address)) {
        LOG_WARN("%s - closing a connection that let its time pass: %s", __func__,
                 http_refusals_text(peer->address));
    }
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
    log_time_up(peer);
    evhtp_close(peer->connection);
}

evhtp_res on_connection_fini(evhtp_connection_t *, void *argument) noexcept
{
    auto *const peer = static_cast<server_connection *>(argument);
    http_intake_end(&peer->intake);
    http_budget_leave(&peer->share);
    http_tls_end(&peer->tls);
    http_handshake_end(&peer->handshake);
    http_give_back_after_end();
    std::erase_if(state.connections, [peer](const auto &other) { return other.get() == peer; });
    return EVHTP_RES_OK;
}

/// Somebody may connect and leave thousands of times a second: what is made for a connection costs ten
/// times as much as to look.
bool has_left(const evhtp_connection_t *connection)
{
    char byte = 0;
    const ssize_t size = recv(connection->sock, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR);
}

evhtp_res on_pre_accept(evhtp_connection_t *connection, void *) noexcept
{
    http_listener_count();
    if (has_left(connection)) {
        return EVHTP_RES_ERROR;
    }
    fcntl(connection->sock, F_SETFD, FD_CLOEXEC); // the only flag of a descriptor
    const in_addr_t address = peer_address(connection);
    const auto of_address = static_cast<std::size_t>(
        std::count_if(state.connections.begin(), state.connections.end(),
                      [address](const auto &peer) { return peer->address == address; }));
    const bool is_full = state.connections.size() >= state.limits.total;
    if (is_full || of_address >= state.limits.per_address) {
        metrics_count(is_full ? metric::connections_over_total : metric::connections_over_address);
        story_visit_came(
            {.address = address, .check = story_connections, .why = "too many connections"});
        if (http_refusals_tell(address)) {
            LOG_WARN("%s - too many connections: %zu, %zu of this address: %s", __func__,
                     state.connections.size(), of_address, http_refusals_text(address));
        }
        return EVHTP_RES_ERROR;
    }
    return EVHTP_RES_OK;
}

void begin_tls(server_connection *peer)
{
    peer->tls.tls = peer->connection->ssl;
    peer->tls.socket = peer->connection->sock;
    peer->tls.handshake_bytes = state.limits.handshake_bytes;
    peer->tls.address = peer->address;
    peer->tls.keeps_some = count_memory_soon;
    peer->tls.wants_turn = on_turn_is_spent;
    peer->tls.argument = peer;
    http_tls_renew_ticket_key(state.htp->ssl_ctx, std::chrono::steady_clock::now());
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
    peer->share = {connection, &peer->intake, peer->address};
    http_budget_join(&peer->share);
    peer->timer.reset(evtimer_new(connection->evbase, on_time_up, peer));
    REQUIRE_MEMORY(peer->timer, "timer");
    peer->next_turn.reset(evtimer_new(connection->evbase, on_next_turn, peer));
    REQUIRE_MEMORY(peer->next_turn, "next_turn");
    state.connections.push_back(std::move(owned));
    metrics_keep_most(metric::connections_most, state.connections.size());
    const int rc =
        evhtp_connection_hook(connection, evhtp_hook_on_connection_fini, on_connection_fini, peer);
    REQUIRE_CALL(rc == 0, "evhtp_connection_set_hook(on_connection_fini)", rc);
    peer->intake.address = peer->address;
    peer->intake.make_room = make_room;
    peer->intake.argument = peer;
    http_intake_start(&peer->intake, connection, {on_read, on_write, on_event, peer});
    if (connection->ssl != nullptr) { // the fuzzer speaks plain HTTP
        begin_tls(peer);
    }
    restart_timer(peer);
    http_give_back_soon();
    return EVHTP_RES_OK;
}

} // namespace

void http_connections_attach(evhtp_t *htp, const http_connection_limits &limits)
{
    REQUIRE_NOT_NULL(htp, "htp");
    state.limits = limits;
    state.htp = htp;
    http_refusals_forget();
    http_budget_open({limits.held, limits.held_of_address});
    // The library refuses a body that reaches the number, where ours is the longest served.
    evhtp_set_max_body_size(htp, http_server_max_body_size + 1);
    evhtp_set_pre_accept_cb(htp, on_pre_accept, nullptr);
    evhtp_set_post_accept_cb(htp, on_post_accept, nullptr);
}

void http_connections_watch_listener()
{
    REQUIRE_NOT_NULL(state.htp, "htp");
    http_listener_open(state.htp, state.limits.listener_rest);
    http_give_back_open(state.htp->evbase);
    state.memory_check.reset(evtimer_new(state.htp->evbase, on_memory_check, nullptr));
    REQUIRE_MEMORY(state.memory_check, "memory_check");
    http_handshakes_open(state.htp->evbase, state.limits.handshakes);
    http_give_back_soon(); // after what the start has freed
}

void http_connections_close()
{
    http_listener_close();
    evhtp_unbind_socket(state.htp);
    http_handshakes_close();
    while (!state.connections.empty()) {
        evhtp_close(state.connections.back()->connection);
    }
    state.htp = nullptr;
}

void http_connections_count_kept(const evhtp_connection_t *connection, std::size_t size)
{
    for (const auto &peer : state.connections) {
        if (peer->connection == connection) {
            peer->intake.kept = size;
        }
    }
}

std::size_t http_connections_count()
{
    return state.connections.size();
}
