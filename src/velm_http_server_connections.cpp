#include "velm_http_server_connections.h"

#include <event2/util.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "handles/evhtp.h"
#include "handles/libevent.h"
#include "logger/fatal.h"
#include "velm_http_server_head_filter.h"

namespace {

constexpr char log_category[] = "velm_http_server";

/// What may wait behind a request that is being answered, or as an unfinished head.
constexpr std::size_t max_held = http_head_max_size + http_server_max_body_size;

enum class message_phase {
    head,      // gathering the next request's head
    body,      // the parser has the head and wants the body
    answering, // the request is whole; what comes now belongs to the next one
};

/// The library's own callbacks, put back to work when we have looked at the bytes. A filtering
/// bufferevent would not do: it reports a reply as written when the socket has not taken it, and
/// the library then closes a "Connection: close" client in the middle of it.
struct library_callbacks {
    bufferevent_data_cb read = nullptr;
    bufferevent_data_cb write = nullptr;
    bufferevent_event_cb event = nullptr;
    void *argument = nullptr;
};

struct server_connection {
    evhtp_connection_t *connection = nullptr; // the library's; it tells us when it goes
    in_addr_t address = 0;
    library_callbacks library;
    event_ptr timer;
    message_phase phase = message_phase::head;
    std::string held;        // received, not yet given to the parser
    std::size_t scanned = 0; // of `held`, while it holds an unfinished head
    std::uint64_t body_left = 0;
    bool chunked = false;                 // the parser finds the body's end
    std::vector<http_head_lifted> lifted; // of the head that the parser works on
    bool reply_overdue = false;
    bool *gone = nullptr; // set when the connection ends inside a call of the library
};

struct module_state {
    http_connection_limits limits;
    evhtp_t *htp = nullptr;
    std::vector<std::unique_ptr<server_connection>> connections;
    event_ptr listener_wake;
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

void log_refusal(const char *reason)
{
    LOG_WARN("%s - %s", "refuse", reason);
}

/// The peer is gone after this.
void refuse(server_connection *peer, const char *reason)
{
    log_refusal(reason);
    evhtp_close(peer->connection);
}

bool is_paused(const server_connection *peer)
{
    return (peer->connection->flags & EVHTP_CONN_FLAG_PAUSED) != 0;
}

/// Every route either pauses the request or answers it before it returns.
bool has_reached_its_route(const server_connection *peer)
{
    const evhtp_request_t *const request = peer->connection->request;
    return is_paused(peer) ||
           (request != nullptr && (request->flags & EVHTP_REQ_FLAG_FINISHED) != 0);
}

/// The parser tells no path of an HTTP/0.9 request, and so nobody would ever answer it.
bool has_route(const server_connection *peer)
{
    const evhtp_request_t *const request = peer->connection->request;
    return request != nullptr && request->cb != nullptr;
}

/// Runs one of the library's callbacks; false when the connection has ended in it.
template <typename Call>
bool survives(server_connection *peer, Call call)
{
    bool gone = false;
    peer->gone = &gone;
    call();
    if (!gone) {
        peer->gone = nullptr;
    }
    return !gone;
}

/// Gives the parser these bytes; false when the connection has ended. What the parser left comes
/// back, so that it never starts on a head that has not been looked at.
bool feed(server_connection *peer, std::string_view bytes)
{
    bufferevent *const bev = peer->connection->bev;
    evbuffer *const input = bufferevent_get_input(bev);
    const int rc = evbuffer_add(input, bytes.data(), bytes.size());
    REQUIRE_CALL(rc == 0, "evbuffer_add(input, bytes, size)", rc);
    if (!survives(peer, [peer, bev] { peer->library.read(bev, peer->library.argument); })) {
        log_refusal("the parser takes it for no request, or its body for too long");
        return false;
    }
    std::string left(evbuffer_get_length(input), '\0');
    if (!left.empty() && evbuffer_remove(input, left.data(), left.size()) > 0) {
        peer->held.insert(0, left);
    }
    return true;
}

void begin_answering(server_connection *peer)
{
    peer->phase = message_phase::answering;
    restart_timer(peer);
}

/// The parser has taken the head and has not called a route: so a body follows. False when the
/// connection has ended.
bool begin_body(server_connection *peer, bool chunked)
{
    peer->body_left = htparser_get_content_length(peer->connection->parser);
    peer->chunked = chunked;
    peer->phase = message_phase::body;
    if (!has_route(peer)) {
        refuse(peer, "no http request");
        return false;
    }
    if (!chunked && peer->body_left > http_server_max_body_size) {
        refuse(peer, "body too long");
        return false;
    }
    return true;
}

/// A step returns true when there may be more to do with what is held.
bool take_head(server_connection *peer)
{
    if (peer->scanned == 0) {
        peer->held.erase(0, std::min(peer->held.find_first_not_of("\r\n"), peer->held.size()));
    }
    const std::size_t length = http_head_length(peer->held, &peer->scanned);
    if (length == 0) {
        if (peer->held.size() >= http_head_max_size) {
            refuse(peer, "head too long");
        }
        return false;
    }
    http_head head = http_head_filter(std::string_view{peer->held}.substr(0, length));
    if (head.refusal != nullptr) {
        refuse(peer, head.refusal);
        return false;
    }
    peer->held.erase(0, length);
    peer->scanned = 0;
    peer->lifted = std::move(head.lifted);
    if (!feed(peer, head.text)) {
        return false;
    }
    if (has_reached_its_route(peer)) {
        begin_answering(peer);
        return true;
    }
    return begin_body(peer, head.chunked);
}

/// How much of what is held the parser may have without seeing anything of the next request. A
/// chunked body ends at a line's end, and only the parser knows at which: so line by line.
std::size_t body_piece(const server_connection *peer)
{
    if (peer->chunked) {
        return std::min(peer->held.find('\n'), peer->held.size() - 1) + 1;
    }
    return static_cast<std::size_t>(std::min<std::uint64_t>(peer->held.size(), peer->body_left));
}

bool take_body(server_connection *peer)
{
    const std::size_t size = peer->held.empty() ? 0 : body_piece(peer);
    if (size == 0) {
        return false;
    }
    const std::string bytes = peer->held.substr(0, size);
    peer->held.erase(0, size);
    peer->body_left -= std::min<std::uint64_t>(size, peer->body_left);
    if (!feed(peer, bytes)) {
        return false;
    }
    if (has_reached_its_route(peer)) {
        begin_answering(peer);
    }
    return true;
}

bool take_nothing(server_connection *peer)
{
    if (peer->held.size() > max_held) {
        refuse(peer, "too much behind a request");
    }
    return false;
}

bool take_held(server_connection *peer)
{
    switch (peer->phase) {
    case message_phase::head:
        return take_head(peer);
    case message_phase::body:
        return take_body(peer);
    case message_phase::answering:
        return take_nothing(peer);
    }
    return false;
}

void on_read(bufferevent *bev, void *argument) noexcept
{
    auto *const peer = static_cast<server_connection *>(argument);
    evbuffer *const input = bufferevent_get_input(bev);
    const std::size_t before = peer->held.size();
    peer->held.resize(before + evbuffer_get_length(input));
    evbuffer_remove(input, peer->held.data() + before, peer->held.size() - before);
    while (take_held(peer)) {
    }
}

/// The library frees an answered request here; then the next one may come.
void on_write(bufferevent *bev, void *argument) noexcept
{
    auto *const peer = static_cast<server_connection *>(argument);
    if (!survives(peer, [peer, bev] { peer->library.write(bev, peer->library.argument); }) ||
        peer->phase != message_phase::answering || peer->connection->request != nullptr) {
        return;
    }
    peer->phase = message_phase::head;
    peer->lifted = {};
    peer->held.shrink_to_fit();
    restart_timer(peer);
    while (take_held(peer)) {
    }
}

void on_event(bufferevent *bev, short events, void *argument) noexcept
{
    const auto *const peer = static_cast<server_connection *>(argument);
    peer->library.event(bev, events, peer->library.argument);
}

void on_time_up(evutil_socket_t, short, void *argument) noexcept
{
    auto *const peer = static_cast<server_connection *>(argument);
    if (is_paused(peer)) {
        restart_timer(peer);
        return;
    }
    if (peer->phase == message_phase::answering && !peer->reply_overdue) {
        // The request may have been paused until a moment ago.
        restart_timer(peer);
        peer->reply_overdue = true;
        return;
    }
    LOG_DEBUG("%s - closing a connection that let its time pass", __func__);
    evhtp_close(peer->connection);
}

/// The parser has all headers: the lifted ones join them before any route looks.
evhtp_res on_headers(evhtp_request_t *, evhtp_headers_t *headers, void *argument) noexcept
{
    auto *const peer = static_cast<server_connection *>(argument);
    for (const http_head_lifted &lifted : std::exchange(peer->lifted, {})) {
        evhtp_header_t *const header = evhtp_header_new(lifted.name, lifted.value.c_str(), 0, 1);
        REQUIRE_MEMORY(header, "header");
        evhtp_headers_add_header(headers, header);
    }
    return EVHTP_RES_OK;
}

evhtp_res on_connection_fini(evhtp_connection_t *, void *argument) noexcept
{
    const auto *const peer = static_cast<server_connection *>(argument);
    if (peer->gone != nullptr) {
        *peer->gone = true;
    }
    std::erase_if(state.connections, [peer](const auto &other) { return other.get() == peer; });
    return EVHTP_RES_OK;
}

evhtp_res on_pre_accept(evhtp_connection_t *connection, void *) noexcept
{
    evutil_make_socket_closeonexec(connection->sock);
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

void set_hooks(server_connection *peer)
{
    int rc = evhtp_connection_hook(peer->connection, evhtp_hook_on_connection_fini,
                                   on_connection_fini, peer);
    REQUIRE_CALL(rc == 0, "evhtp_connection_set_hook(on_connection_fini)", rc);
    rc = evhtp_connection_hook(peer->connection, evhtp_hook_on_headers, on_headers, peer);
    REQUIRE_CALL(rc == 0, "evhtp_connection_set_hook(on_headers)", rc);
}

evhtp_res on_post_accept(evhtp_connection_t *connection, void *) noexcept
{
    auto owned = std::make_unique<server_connection>();
    server_connection *const peer = owned.get();
    peer->connection = connection;
    peer->address = peer_address(connection);
    peer->timer.reset(evtimer_new(connection->evbase, on_time_up, peer));
    REQUIRE_MEMORY(peer->timer, "timer");
    state.connections.push_back(std::move(owned));
    set_hooks(peer);
    library_callbacks &library = peer->library;
    bufferevent_getcb(connection->bev, &library.read, &library.write, &library.event,
                      &library.argument);
    bufferevent_setcb(connection->bev, on_read, on_write, on_event, peer);
    restart_timer(peer);
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
}

void http_connections_close()
{
    state.listener_wake.reset();
    evhtp_unbind_socket(state.htp);
    while (!state.connections.empty()) {
        evhtp_close(state.connections.back()->connection);
    }
    state.htp = nullptr;
}

std::size_t http_connections_count()
{
    return state.connections.size();
}
