#include "ipc/listener.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "ipc/socket.h"
#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "IPC";
constexpr timeval pause_time{0, 200000};

/// A peer that the kernel does not tell counts as root's.
ucred peer_of(int socket)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return {};
    }
    return peer;
}

} // namespace

void velm_ipc_listener::accept_cb(evconnlistener * /*listener*/, evutil_socket_t fd,
                                  sockaddr *address, int /*length*/, void *context) noexcept
{
    unique_fd socket{fd};
    LOG_TRACE("Accept new connection...");
    if (address->sa_family != AF_UNIX) {
        LOG_ERROR("Invalid protocol");
        return;
    }
    const ucred peer = peer_of(fd);
    LOG_DEBUG("%s - pid: %d uid: %u gid: %u", __func__, peer.pid, peer.uid, peer.gid);
    const auto *const self = static_cast<velm_ipc_listener *>(context);
    self->handler_(self->context_, std::move(socket), peer);
}

void velm_ipc_listener::listener_error_cb(evconnlistener * /*listener*/, void *context) noexcept
{
    LOG_ERROR("Listener error");
    static_cast<velm_ipc_listener *>(context)->rest_.rest(pause_time);
}

bool velm_ipc_listener::server_listen(event_base *base, const char *path,
                                      velm_ipc_accepted_handler handler, void *context)
{
    handler_ = handler;
    context_ = context;
    unique_fd socket = velm_ipc_socket_listen(path);
    if (!socket) {
        const int error = errno;
        LOG_ERROR("Cannot create listener");
        LOG_ERROR("%s - %s: %s", __func__, path, std::strerror(error));
        return false;
    }
    listener_.reset(evconnlistener_new(
        base, accept_cb, this, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, 0, socket.get()));
    if (listener_ == nullptr) {
        LOG_ERROR("Cannot create listener");
        return false;
    }
    (void)socket.release(); // the listener closes it
    rest_.watch(listener_.get());
    evconnlistener_set_error_cb(listener_.get(), listener_error_cb);
    return true;
}
