#pragma once

#include <event2/event.h>

#include <cstddef>
#include <string>
#include <vector>

#include "http/headers.h"

/// Asynchronous HTTP and HTTPS requests on the event loop. Names resolve without blocking. Every
/// HTTPS server must present a chain to the configured CA file and the right host name.

struct evkeyvalq;
class http_client_connection;

enum http_client_method : int {
    HTTP_CLIENT_GET = 0,
    HTTP_CLIENT_POST = 1,
    HTTP_CLIENT_PATCH = 2,
    HTTP_CLIENT_DELETE = 3,
    HTTP_CLIENT_PUT = 4,
};

/// The largest answer unless a request says otherwise: ten times what the cloud sends.
inline constexpr std::size_t http_client_body_size_max = 64 * 1024;

/// What to ask. The client copies what it keeps.
struct http_client_request_data {
    http_client_connection *connection = nullptr; // null: a connection of the request's own
    std::string uri;
    std::vector<http_client_header> headers;
    std::string post_data;
    int timeout_s = 0; // for the whole exchange, connecting included; 0 or less: the default
    std::size_t max_body_size = http_client_body_size_max; // of the answer, in bytes
    // These turn checks of the server's certificate off. No caller sets them; the callers' tests look at that.
    bool skip_server_verification = false;
    bool skip_hostname_verification = false;
};

/// Called once for every request that was started, on a turn of the loop of its own: it may start
/// requests and free connections. `code` is the HTTP status; -1 for a time-out at any stage and
/// other negative values for libevent's request errors; 0 when no address could be connected to.
/// Headers and body may be null; the body is terminated and, like the headers, valid during the
/// call only.
using http_client_response_handler = void (*)(int code, evkeyvalq *headers, const char *body,
                                              std::size_t body_length, void *argument);

/// The base is borrowed for the life of the process; common_async_init comes before the first
/// request. Reads the resolver's files.
void http_client_set_event_base(event_base *base);

/// Makes the TLS context that verifies servers against the CA file; 0, or -1 when the file cannot
/// be used. Reads the resolver's configuration again.
[[nodiscard]] int http_client_setup_ssl(const char *ca_file);

/// Does the slow part of http_client_setup_ssl for this file beforehand, and says nothing.
void http_client_prepare_ssl(const char *ca_file);

/// Lets go of the TLS context; requests in flight keep theirs.
void http_client_free_ssl();

/// Null or empty: none is sent. Part of the interface; only tests call it.
void http_client_set_user_agent_string(const char *user_agent);

/// Appends a header; null arguments are fatal.
void http_client_add_header(http_client_request_data *data, const char *header_name,
                            const char *header_value);

/// Starts a request: DELETE and GET send no body; an unknown method is sent as POST. Heads over
/// 16 KiB and bodies over the request's limit are refused. A negative result: not started, and the handler is not
/// called.
[[nodiscard]] int http_request_internal(http_client_method method,
                                        const http_client_request_data &data,
                                        http_client_response_handler handler, void *argument);

/// A connection that the caller holds, to pin requests to one host: it keeps the scheme, host,
/// port and checks of the first request, and a request that differs in them does not start.
/// Freeing it ends its requests with code -5. Part of the interface; only tests call both.
[[nodiscard]] http_client_connection *http_client_connection_create();
void http_client_connection_free(http_client_connection *connection);
