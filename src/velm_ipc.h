#pragma once

#include <event2/event.h>

#include <cstddef>
#include <cstdint>

#include "handles/handle.h"
#include "ipc/places.h"

/// The location-policy IPC. It listens on a Unix socket (SOCK_SEQPACKET), and keeps the connections
/// and the requests that wait for an answer. It sends answers and reports. The same object can also
/// be a client that connects to such a server and keeps reconnecting. Loop thread only.
///
/// A request waits at most 600 s. Of one connection at most 1024 requests wait; one more is
/// answered with busy. A connection that ends takes its requests with it. The number of connections
/// has a limit too: one more client gets the place of another (ipc/places.h).

struct velm_ipc;

/// Requests that led to a push are never answered, so a client that asks every second has 600
/// waiting: it must not be turned away for that.
inline constexpr std::size_t velm_ipc_outstanding_limit = 1024;

/// Takes one request; non-zero when it took it. `seq` names the request to velm_ipc_respond, which
/// it may call at once. `payload` (140 bytes) is borrowed. It must not destroy the server.
using velm_ipc_cmd_handler = int (*)(velm_ipc *server, std::uint32_t seq, std::uint16_t type,
                                     const void *payload, std::size_t len);

/// Told when no packet waits for any client any more, at times also when none did. It must not destroy
/// the server, and it may be called from inside a broadcast.
using velm_ipc_drained_handler = void (*)(velm_ipc *server);

void velm_ipc_destroy(velm_ipc *server) noexcept;
using velm_ipc_ptr = handle<velm_ipc, velm_ipc_destroy>;

/// `server_path` is where it listens, `client_path` the server it connects to; either may be null.
/// Null, with a line in the log, when a path is longer than 107 characters or the socket cannot be
/// set up. A server to connect to may come later: it is tried again every second.
[[nodiscard]] velm_ipc_ptr velm_ipc_create(event_base *base, const char *client_path,
                                           const char *server_path);

/// Until there is one, every request is answered with busy.
void velm_ipc_set_cmd_handler(velm_ipc *server, velm_ipc_cmd_handler handler);

/// Without one nobody is told.
void velm_ipc_set_drained_handler(velm_ipc *server, velm_ipc_drained_handler handler);

/// Answers the request and forgets it. 0 when it is unknown (expired, or its client has gone) or
/// the answer cannot be sent.
int velm_ipc_respond(velm_ipc *server, std::uint32_t seq, const void *payload, std::size_t len,
                     std::uint32_t status);

/// Sends a report to every live connection; 1 when every send succeeded. A client that does not read
/// loses its connection at 64 packets that wait: ask velm_ipc_is_drained first.
int velm_ipc_broadcast_report(velm_ipc *server, const void *payload, std::size_t len);

/// True when no packet waits for any client, so that a report takes nobody's last room.
[[nodiscard]] bool velm_ipc_is_drained(const velm_ipc *server);

struct velm_ipc_usage {
    std::size_t connections = 0;
    std::size_t open_requests = 0;
};
[[nodiscard]] velm_ipc_usage velm_ipc_usage_of(const velm_ipc *server);

/// What the timer does when it is due: reconnects, and lets go of closed connections and of requests
/// that waited too long. It is due a second after a connection was lost, and when the oldest request
/// has waited its time; with neither it rests.
void velm_ipc_tick(velm_ipc *server);
