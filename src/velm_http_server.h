#pragma once

#include <event2/event.h>
#include <openssl/x509.h>

#include "velm_config.h"

/// The HTTPS API for the phones; request/paths.h lists its paths.

/// Before anything else here; the base is borrowed for the life of the process.
void velm_http_server_set_event_base(event_base *base);

/// Remembers the configuration (borrowed) and rebuilds the TLS settings. Runs again on reload.
void velm_http_server_init(const velm_config *config);

/// Queues http_server_start.
void velm_http_server_start();

/// Stops the server if one runs. From a loop event, never from a route's callback.
void velm_http_server_stop();

/// An interface has got an address: a server that waits for its own tries again at once.
void velm_http_server_address_came();

/// False without a server, and while the server waits for its address.
[[nodiscard]] bool velm_http_server_is_listening();

/// The certificate that phones are shown; null when nobody is served. Borrowed until the loop goes on.
[[nodiscard]] const X509 *velm_http_server_certificate();

/// Binds and serves; ends a running server first. A certificate or key that cannot be used is
/// fatal. So is a bind that fails, with one exception: an address that no interface has. That is
/// one ERROR line, and the bind is tried again until it succeeds or the server is stopped
/// (lan/wait.h). Port 0 means no server. Runs inside the loop.
void http_server_start();

/// Closes all connections and ends the server, if one runs, and the wait for an address. From a loop event,
/// never from a route's callback.
void http_server_stop();
