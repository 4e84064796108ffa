#include "velm_ipc.h"

#include <sys/socket.h>
#include <unistd.h>
#include <velm/location_policy.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "handles/argument.h"
#include "handles/libevent.h"
#include "ipc/listener.h"
#include "ipc/open_requests.h"
#include "ipc/places.h"
#include "ipc/socket.h"
#include "logger/fatal.h"
#include "metrics/metrics.h"
#include "story/story.h"
#include "text/or_empty.h"
#include "velm_conn.h"
#include "velm_ipc_cmd.h"

namespace {

struct connection {
    velm_conn_ptr conn;
    pid_t pid = 0;
    uid_t uid = 0;
    std::uint64_t heard = 0;  // the number that its last request, or its arrival, had among all
    std::size_t requests = 0; // of the outstanding ones
};

/// What the timer waits for.
enum class timer_state { rests, until_next_tick, until_oldest_request };

} // namespace

struct velm_ipc {
    event_base *base = nullptr;
    std::string client_path;
    velm_ipc_listener listener;
    event_ptr timer; // for the next tick that has something to do: nobody else wakes the process
    timer_state timer_waits = timer_state::rests;
    std::vector<connection> connections;
    velm_conn *client = nullptr; // the one of the connections that we made ourselves
    velm_ipc_open_requests requests;
    std::uint64_t heard = 0;
    std::uint32_t request_seq = 0;
    std::uint32_t report_seq = 0;
    bool has_reported = false; // since the last request came
    velm_ipc_cmd_handler handler = nullptr;
    velm_ipc_drained_handler drained_handler = nullptr;
};

namespace {

constexpr char log_category[] = "IPC";
constexpr timeval tick_interval{1, 0};
// The clock on the wall, by which requests wait, may be set forward: it is looked at this often.
constexpr std::time_t longest_sleep_s = 3;

/// Its requests are counted and not searched for: a client that floods would be served at the cost of
/// the others, once for each request of each of them.
connection *connection_of(velm_ipc *server, const velm_conn *conn)
{
    return &*std::find_if(server->connections.begin(), server->connections.end(),
                          [conn](const connection &one) { return one.conn.get() == conn; });
}

void request_add(velm_ipc *server, const velm_ipc_open_request &request)
{
    server->requests.add(request);
    ++connection_of(server, request.conn)->requests;
}

/// None when it is not there.
std::optional<velm_ipc_open_request> request_take(velm_ipc *server, std::uint32_t seq)
{
    const auto request = server->requests.take(seq);
    if (request) {
        --connection_of(server, request->conn)->requests;
    }
    return request;
}

bool wants_to_connect(const velm_ipc *server)
{
    const bool connected = server->client != nullptr && !velm_conn_is_closed(server->client);
    return !server->client_path.empty() && !connected;
}

timer_state timer_wanted(const velm_ipc *server)
{
    if (wants_to_connect(server) ||
        std::any_of(server->connections.begin(), server->connections.end(),
                    [](const connection &one) { return velm_conn_is_closed(one.conn.get()); })) {
        return timer_state::until_next_tick;
    }
    return server->requests.first_deadline().has_value() ? timer_state::until_oldest_request
                                                         : timer_state::rests;
}

timeval timer_delay(const velm_ipc *server, timer_state wanted)
{
    if (wanted == timer_state::until_next_tick) {
        return tick_interval;
    }
    const std::time_t now = std::time(nullptr);
    const std::time_t left = server->requests.first_deadline().value_or(now) - now;
    // Who has its report waits for nothing more, though the request is kept until its time is over.
    const std::time_t longest =
        server->has_reported ? velm_ipc_cmd_request_lifetime_s + 1 : longest_sleep_s;
    return {std::clamp(left + 1, std::time_t{1}, longest), 0};
}

void timer_set(velm_ipc *server, timer_state wanted)
{
    server->timer_waits = wanted;
    if (wanted == timer_state::rests) {
        event_del(server->timer.get());
        return;
    }
    const timeval delay = timer_delay(server, wanted);
    const int rc = event_add(server->timer.get(), &delay);
    REQUIRE_CALL(rc == 0, "event_add(timer, &tv)", rc);
}

/// After every change that may make a tick due sooner, or not at all. One that is set for a request
/// which has been answered meanwhile is left: it finds out, and is set for the next one.
void timer_adjust(velm_ipc *server)
{
    const timer_state wanted = timer_wanted(server);
    if (wanted != server->timer_waits) {
        timer_set(server, wanted);
    }
}

/// After the first report: the clock need not be looked at before the oldest request's time is over. A
/// tick that a closed connection or a new attempt to connect waits for stays where it is, however many
/// reports come.
void timer_put_off(velm_ipc *server)
{
    const bool had_reported = std::exchange(server->has_reported, true);
    if (!had_reported && server->timer_waits == timer_state::until_oldest_request) {
        timer_set(server, timer_wanted(server));
    }
}

int frame_handler(velm_conn *conn, std::uint32_t id, std::uint16_t type, const void *payload,
                  std::size_t len, std::time_t deadline)
{
    velm_ipc *const server = velm_conn_server(conn);
    connection *const asking = connection_of(server, conn);
    asking->heard = ++server->heard;
    const bool has_too_many = asking->requests >= velm_ipc_outstanding_limit;
    const std::uint32_t seq = has_too_many ? 0 : ++server->request_seq;
    story_request_came(seq, {asking->pid, asking->uid, id});
    if (has_too_many) {
        story_request_refused(seq, story_cause::busy);
        return 0;
    }
    request_add(server, {conn, seq, id, deadline});
    if (std::exchange(server->has_reported, false)) {
        server->timer_waits = timer_state::rests; // its next tick may be minutes away
    }
    const int taken =
        server->handler == nullptr ? 0 : server->handler(server, seq, type, payload, len);
    if (taken == 0) {
        (void)request_take(server, seq);
        story_request_refused(seq, story_cause::busy);
    }
    timer_adjust(server);
    return taken;
}

void drained_handler(velm_conn *conn)
{
    velm_ipc *const server = velm_conn_server(conn);
    if (server->drained_handler != nullptr && velm_ipc_is_drained(server)) {
        server->drained_handler(server);
    }
}

/// What waited for it waits no more.
void closed_handler(velm_conn *conn)
{
    timer_adjust(velm_conn_server(conn));
    drained_handler(conn);
}

velm_conn *connection_add(velm_ipc *server, unique_fd socket, const ucred &peer)
{
    velm_conn_ptr conn =
        velm_conn_create(server->base, std::move(socket), server, velm_ipc_cmd_read, frame_handler);
    if (conn == nullptr) {
        LOG_ERROR("Cannot create connection");
        return nullptr;
    }
    velm_conn_set_closed_handler(conn.get(), closed_handler);
    velm_conn_set_drained_handler(conn.get(), drained_handler);
    server->connections.push_back({std::move(conn), peer.pid, peer.uid, ++server->heard});
    metrics_keep_most(metric::clients_most, server->connections.size());
    return server->connections.back().conn.get();
}

void closed_connections_remove(velm_ipc *server)
{
    server->requests.remove_of_closed(
        [](const velm_ipc_open_request &request) { story_client_gone(request.seq); });
    if (server->client != nullptr && velm_conn_is_closed(server->client)) {
        server->client = nullptr;
    }
    std::erase_if(server->connections,
                  [](const connection &one) { return velm_conn_is_closed(one.conn.get()); });
}

/// None only when no connection may go.
velm_conn *place_to_give(const velm_ipc *server)
{
    std::vector<velm_ipc_place> places;
    for (const connection &one : server->connections) {
        places.push_back({one.uid, one.heard, one.requests > 0, one.conn.get() != server->client});
    }
    const auto found = velm_ipc_place_to_give(places);
    return found ? server->connections[*found].conn.get() : nullptr;
}

/// What has closed since the last tick takes no place. From the loop only.
void make_room(const char *caller, velm_ipc *server)
{
    if (server->connections.size() >= velm_ipc_connection_limit) {
        closed_connections_remove(server);
    }
    if (server->connections.size() < velm_ipc_connection_limit) {
        return;
    }
    LOG_WARN("%s - too many connections: %zu, the one that was quiet longest ends", caller,
             server->connections.size());
    if (velm_conn *const leaving = place_to_give(server); leaving != nullptr) {
        velm_conn_close(leaving);
        closed_connections_remove(server);
        timer_adjust(server);
    }
}

void accept_cb(void *context, unique_fd socket, const ucred &peer)
{
    auto *const server = static_cast<velm_ipc *>(context);
    make_room(__func__, server);
    if (connection_add(server, std::move(socket), peer) != nullptr) {
        LOG_INFO("Connection accepted");
    }
}

void client_reconnect(velm_ipc *server)
{
    if (!wants_to_connect(server)) {
        return;
    }
    unique_fd socket = velm_ipc_socket_connect(server->client_path.c_str());
    if (!socket) {
        return;
    }
    server->client = connection_add(server, std::move(socket), {getpid(), getuid(), getgid()});
    if (server->client != nullptr) {
        LOG_TRACE("Connected");
    }
}

void orphaned_request_forget(const velm_ipc_open_request &request)
{
    // Our number first, the client's second, whatever the words say: the line is read so.
    LOG_TRACE("Removing orphaned request id=%u seq=%u", request.seq, request.id);
    --connection_of(velm_conn_server(request.conn), request.conn)->requests;
    story_request_dropped(request.seq);
}

void timer_cb(evutil_socket_t, short, void *context) noexcept
{
    auto *const server = static_cast<velm_ipc *>(context);
    server->timer_waits = timer_state::rests;
    velm_ipc_tick(server);
}

void timer_make(velm_ipc *server)
{
    server->timer.reset(evtimer_new(server->base, timer_cb, server));
    REQUIRE_MEMORY(server->timer, "timer");
}

bool path_fits(const char *path)
{
    if (path == nullptr || std::strlen(path) <= velm_ipc_path_limit) {
        return true;
    }
    LOG_ERROR("%s - path is longer than %u characters: %s", "velm_ipc_create", velm_ipc_path_limit,
              path);
    return false;
}

} // namespace

void velm_ipc_destroy(velm_ipc *server) noexcept
{
    adopt<velm_ipc>(server);
}

velm_ipc_ptr velm_ipc_create(event_base *base, const char *client_path, const char *server_path)
{
    if (!path_fits(client_path) || !path_fits(server_path)) {
        return nullptr;
    }
    velm_ipc_ptr server{release_new<velm_ipc>()};
    server->base = base;
    server->client_path = text_or_empty(client_path);
    if (*text_or_empty(server_path) != '\0' &&
        !server->listener.server_listen(base, server_path, accept_cb, server.get())) {
        return nullptr;
    }
    timer_make(server.get());
    client_reconnect(server.get());
    timer_adjust(server.get());
    return server;
}

void velm_ipc_set_cmd_handler(velm_ipc *server, velm_ipc_cmd_handler handler)
{
    server->handler = handler;
}

void velm_ipc_set_drained_handler(velm_ipc *server, velm_ipc_drained_handler handler)
{
    server->drained_handler = handler;
}

int velm_ipc_respond(velm_ipc *server, std::uint32_t seq, const void *payload, std::size_t len,
                     std::uint32_t status)
{
    const auto request = request_take(server, seq);
    if (!request) {
        return 0;
    }
    timer_adjust(server);
    return velm_ipc_cmd_send_resp(request->conn, VELM_LOCATION_REQUEST, request->id, status,
                                  payload, len);
}

int velm_ipc_broadcast_report(velm_ipc *server, const void *payload, std::size_t len)
{
    int all_sent = 1;
    std::uint32_t clients = 0;
    timer_put_off(server);
    for (const connection &one : server->connections) {
        velm_conn *const conn = one.conn.get();
        if (velm_conn_is_closed(conn)) {
            continue;
        }
        if (velm_ipc_cmd_send_resp(conn, VELM_LOCATION_REPORT, ++server->report_seq, VELM_STATUS_OK,
                                   payload, len) == 0) {
            all_sent = 0;
        } else {
            ++clients;
        }
    }
    story_report_sent(clients);
    return all_sent;
}

bool velm_ipc_is_drained(const velm_ipc *server)
{
    return std::none_of(server->connections.begin(), server->connections.end(),
                        [](const connection &one) { return velm_conn_is_waiting(one.conn.get()); });
}

velm_ipc_usage velm_ipc_usage_of(const velm_ipc *server)
{
    const auto live =
        std::count_if(server->connections.begin(), server->connections.end(),
                      [](const connection &one) { return !velm_conn_is_closed(one.conn.get()); });
    return {static_cast<std::size_t>(live), server->requests.size()};
}

void velm_ipc_tick(velm_ipc *server)
{
    client_reconnect(server);
    closed_connections_remove(server);
    server->requests.remove_late(std::time(nullptr), orphaned_request_forget);
    story_close_expired();
    timer_adjust(server);
}
