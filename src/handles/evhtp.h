#pragma once

#include <evhtp/evhtp.h>

#include "handles/handle.h"

/// Frees the instance only: its listener and its connections must have gone before.
using evhtp_ptr = handle<evhtp_t, evhtp_free>;

/// Closes the connection; its fini hook runs inside the call.
inline void evhtp_close(evhtp_connection_t *connection) noexcept
{
    evhtp_connection_free(connection);
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
