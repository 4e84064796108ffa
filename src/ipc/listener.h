#pragma once

#include <event2/event.h>
#include <sys/socket.h>

#include "cutils/resting_listener.h"
#include "handles/fd.h"
#include "handles/libevent.h"

/// Takes clients of the location-policy IPC: a socket that listens, on the loop. While accepting fails, for
/// want of descriptors for example, it rests a moment at a time. Loop thread only.

/// Gets each client with what the kernel says of it. A client that the kernel says nothing of counts as root.
using velm_ipc_accepted_handler = void (*)(void *context, unique_fd socket, const ucred &peer);

class velm_ipc_listener {
  public:
    velm_ipc_listener() = default;
    ~velm_ipc_listener() = default;
    velm_ipc_listener(const velm_ipc_listener &) = delete;
    velm_ipc_listener &operator=(const velm_ipc_listener &) = delete;

    /// Listens at the path (see velm_ipc_socket_listen) until this object ends; called once. Accepted sockets
    /// are close-on-exec and do not block. False, with lines in the log, when the socket cannot be set up. The
    /// name of this function is in the log, as is accept_cb's.
    [[nodiscard]] bool server_listen(event_base *base, const char *path,
                                     velm_ipc_accepted_handler handler, void *context);

  private:
    static void accept_cb(evconnlistener *listener, evutil_socket_t fd, sockaddr *address,
                          int length, void *context) noexcept;
    static void listener_error_cb(evconnlistener *listener, void *context) noexcept;

    velm_ipc_accepted_handler handler_ = nullptr;
    void *context_ = nullptr;
    evconnlistener_ptr listener_;
    resting_listener rest_;
};
