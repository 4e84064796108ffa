#pragma once

#include <event2/bufferevent.h>
#include <event2/bufferevent_struct.h>
#include <evhtp/evhtp.h>

#include <cstdlib>

#include "handles/handle.h"

/// Frees the instance only: its listener and its connections must have gone before.
using evhtp_ptr = handle<evhtp_t, evhtp_free>;

/// Closes the connection; its fini hook runs inside the call.
inline void evhtp_close(evhtp_connection_t *connection) noexcept
{
    evhtp_connection_free(connection);
}

/// The parser holds a buffer of 8 KiB, and the library makes one for each connection, for its whole
/// life. Only while a request is being read or answered does it look at it. Null without memory.
inline htparser *evhtp_connection_make_parser(evhtp_connection_t *connection) noexcept
{
    if (connection->parser == nullptr) {
        connection->parser = htparser_new();
    }
    if (connection->parser != nullptr) {
        htparser_init(connection->parser, htp_type_request);
        htparser_set_userdata(connection->parser, connection);
    }
    return connection->parser;
}

/// Nothing of a request may be under way.
inline void evhtp_connection_drop_parser(evhtp_connection_t *connection) noexcept
{
    std::free(connection->parser);
    connection->parser = nullptr;
}

/// Pauses the request of a TLS connection and leaves the kernel alone: reading is off, but the socket
/// stays watched, and libevent takes it off when something does come before the answer has left. That
/// is seldom, and to unwatch it and watch it again costs more than the answer of a quick route.
inline void evhtp_pause(evhtp_request_t *request) noexcept
{
    bufferevent *const bev = request->conn->bev;
    bev->enabled = static_cast<short>(bev->enabled & ~EV_READ);
    evhtp_request_pause(request);
}

/// The library takes every hook as a function without a prototype, so the one cast that this needs
/// stands here. 0 on success.
template <typename Result, typename... Args>
[[nodiscard]] int evhtp_connection_hook(evhtp_connection_t *connection, evhtp_hook_type type,
                                        Result (*hook)(Args...), void *argument)
{
    return evhtp_connection_set_hook(
        connection, type, reinterpret_cast<evhtp_hook>(reinterpret_cast<void (*)()>(hook)),
        argument);
}

template <typename Result, typename... Args>
[[nodiscard]] int evhtp_request_hook(evhtp_request_t *request, evhtp_hook_type type,
                                     Result (*hook)(Args...), void *argument)
{
    return evhtp_request_set_hook(
        request, type, reinterpret_cast<evhtp_hook>(reinterpret_cast<void (*)()>(hook)), argument);
}
