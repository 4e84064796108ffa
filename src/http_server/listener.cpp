#include "http_server/listener.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "handles/libevent.h"
#include "http_server/log.h"
#include "logger/fatal.h"

namespace {

struct module_state {
    evconnlistener *listener = nullptr; // the library's
    timeval rest{};
    unsigned accepted = 0; // since the last pause
    event_ptr listener_wake;
};
module_state state;

/// Each accepted socket has it from the listening one. The kernel doubles what it is told, for what it
/// needs itself.
void limit_buffer(int which, const char *name, int size)
{
    const int told = size / 2;
    if (setsockopt(evconnlistener_get_fd(state.listener), SOL_SOCKET, which, &told, sizeof told) !=
        0) {
        LOG_WARN("%s - setsockopt(%s): %s", __func__, name, std::strerror(errno));
    }
}

void pause(const timeval &length)
{
    evconnlistener_disable(state.listener);
    const int rc = evtimer_add(state.listener_wake.get(), &length);
    REQUIRE_CALL(rc == 0, "evtimer_add(listener_wake, &length)", rc);
}

void on_listener_wake(evutil_socket_t, short, void *) noexcept
{
    state.accepted = 0;
    evconnlistener_enable(state.listener);
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
    state.listener = htp->server;
    state.rest = rest;
    state.accepted = 0;
    state.listener_wake.reset(evtimer_new(htp->evbase, on_listener_wake, nullptr));
    REQUIRE_MEMORY(state.listener_wake, "listener_wake");
    evconnlistener_set_error_cb(state.listener, on_accept_error);
    limit_buffer(SO_SNDBUF, "SO_SNDBUF", http_listener_send_buffer);
    limit_buffer(SO_RCVBUF, "SO_RCVBUF", http_listener_receive_buffer);
}

void http_listener_close()
{
    state.listener_wake.reset();
    state.listener = nullptr;
}

void http_listener_count()
{
    if (state.listener != nullptr && ++state.accepted >= http_listener_turn) {
        constexpr timeval next_turn{};
        pause(next_turn);
    }
}
