#pragma once

#include <event2/event.h>
#include <evhtp/evhtp.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>

#include "http_server/handshakes.h"

/// The live connections of the HTTPS server. libevhtp keeps no list of them, sets no limit and no
/// end to their time; all three are kept here. What a connection sends goes through
/// http_server/intake.h.

struct http_connection_limits {
    /// An idle TLS connection costs 17 kB: together 1.1 MB of a small device.
    std::size_t total = 64;
    /// A phone opens a few at a time. When one host has taken its share, the rest serves the others.
    std::size_t per_address = 16;
    http_handshake_limits handshakes;
    /// From accept, or from the end of the last reply, to the last byte of the next request, the TLS
    /// handshake and any idle time included. A total, so that dripping bytes gains nothing. While the
    /// checks of a request run it does not end; a reply is to be taken within twice this time.
    timeval request_time{30, 0};
    /// What all of them together may hold of requests that are not answered yet: some of the longest
    /// requests, or a hundred usual ones. Above it the address that holds most loses a connection. So
    /// does one address above its own share, which has room for two of the longest requests.
    std::size_t held = 224 * 1024;
    std::size_t held_of_address = 80 * 1024;
    /// What a client may send before its TLS handshake is done: several times what any needs. The
    /// library would take and keep 128 KiB of it.
    std::uint64_t handshake_bytes = 16 * 1024;
    /// How long a client that was refused may take to read that and to end what it sends.
    timeval linger_time{2, 0};
    /// How long the listener rests when the process is out of descriptors.
    timeval listener_rest{0, 200 * 1000};
};

/// Installs itself in an instance that has its TLS settings. Before binding; one instance at a time.
void http_connections_attach(evhtp_t *htp, const http_connection_limits &limits);

/// Makes the listener rest when accepting fails, where it would spin. After binding.
void http_connections_watch_listener();

/// Ends the listener and frees every connection, requests in flight included, so that the instance
/// can be freed. From a loop event only: never from a route's callback, since the parser touches the
/// connection after it.
void http_connections_close();

/// What the checks keep of the body of the request that is paused, in bytes. It counts as held by the
/// connection until the request is answered.
void http_connections_count_kept(const evhtp_connection_t *connection, std::size_t size);

/// How many are open.
[[nodiscard]] std::size_t http_connections_count();
