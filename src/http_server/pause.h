#pragma once

#include <event2/bufferevent.h>
#include <event2/bufferevent_struct.h>
#include <evhtp/evhtp.h>

/// Pauses the request of a TLS connection and leaves the kernel alone: reading is off, but the socket
/// stays watched, and libevent takes it off when something does come before the answer has left. That
/// is seldom, and to unwatch it and watch it again costs more than the answer of a quick route.
inline void evhtp_pause(evhtp_request_t *request) noexcept
{
    bufferevent *const bev = request->conn->bev;
    bev->enabled = static_cast<short>(bev->enabled & ~EV_READ);
    evhtp_request_pause(request);
}
