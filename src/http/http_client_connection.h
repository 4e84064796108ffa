#pragma once

#include "handles/libevent.h"
#include "http/http_client_tls.h"
#include "http/http_client_uri.h"

/// One evhttp connection and what belongs to it: its TLS peer, and the address it was opened to.

struct http_client_connection {
    http_client_target target; // empty host: not used yet
    http_client_peer peer;     // outlives the bufferevent's TLS object, which borrows it
    bufferevent_handle bufev;  // until the connection takes it
    evhttp_connection_ptr evcon;

    http_client_connection() = default;
    ~http_client_connection();
    http_client_connection(const http_client_connection &) = delete;
    http_client_connection &operator=(const http_client_connection &) = delete;

    [[nodiscard]] bufferevent *transport() const;
};

/// Makes an empty connection ready to be opened to the target; a used one must already lead there
/// under the same checks. False (logged) when it cannot serve.
[[nodiscard]] bool get_conn_by_scheme(http_client_connection *connection, event_base *base,
                                      const http_client_target &target,
                                      const http_client_peer &peer);

/// Gives the connection its address, numeric text. Once per connection; false without memory.
[[nodiscard]] bool http_client_connection_open(http_client_connection *connection, event_base *base,
                                               const char *address, int timeout_s,
                                               std::size_t max_body_size);

/// Keeps the socket, when there is one, out of child processes.
void http_client_connection_close_on_exec(const http_client_connection *connection);

/// Why TLS failed, in OpenSSL's words or, when the socket failed it, in those of `socket_error`;
/// nothing for a connection that has no TLS or no failure.
void http_client_connection_log_tls_errors(const http_client_connection *connection,
                                           int socket_error);
