#pragma once

#include <event2/event.h>

#include "velm_config.h"

/// The HTTPS API for the phones: /info, /challenge, /pair, /pairings, /unpair, /location.

/// Before anything else here; the base is borrowed for the life of the process.
void velm_http_server_set_event_base(event_base *base);

/// Remembers the configuration (borrowed) and rebuilds the TLS settings. Runs again on reload.
void velm_http_server_init(const velm_config *config);

/// Queues http_server_start.
void velm_http_server_start();

/// Stops the server if one runs. From a loop event, never from a route's callback.
void velm_http_server_stop();

/// Binds and serves; ends a running server first. A certificate, key or address that cannot be used
/// is fatal; a port of 0 means no server. Runs inside the loop.
void http_server_start();
void http_server_stop();
