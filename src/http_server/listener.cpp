#include "http_server/listener.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "cutils/resting_listener.h"
#include "http_server/log.h"
#include "logger/common_logger.h"

namespace {

struct module_state {
    resting_listener listener; // of the library's
    timeval rest{};
    unsigned accepted = 0; // since it rested last
};
module_state state;

/// Each accepted socket has it from the listening one. The kernel doubles what it is told, for what it
/// needs itself.
void limit_buffer(int which, const char *name, int size)
{
    const int told = size / 2;
    if (setsockopt(evconnlistener_get_fd(state.listener.get()), SOL_SOCKET, which, &told,
                   sizeof told) != 0) {
        LOG_WARN("%s - setsockopt(%s): %s", __func__, name, std::strerror(errno));
    }
}

void pause(const timeval &length)
{
    state.accepted = 0;
    state.listener.rest(length);
}

/// Without descriptors it would spin.
void on_accept_error(evconnlistener *, void *) noexcept
{
    LOG_WARN("%s - cannot accept: %s", __func__, std::strerror(errno));
    pause(state.rest);
}

} // namespace

void http_listener_open(evhtp_t *htp, const timeval &rest)
{
    state.listener.watch(htp->server);
    state.rest = rest;
    state.accepted = 0;
    evconnlistener_set_error_cb(htp->server, on_accept_error);
    limit_buffer(SO_SNDBUF, "SO_SNDBUF", http_listener_send_buffer);
    limit_buffer(SO_RCVBUF, "SO_RCVBUF", http_listener_receive_buffer);
}

void http_listener_close()
{
    state.listener.forget();
}

void http_listener_count()
{
    if (state.listener.get() != nullptr && ++state.accepted >= http_listener_turn) {
        constexpr timeval next_turn{};
        pause(next_turn);
    }
}
