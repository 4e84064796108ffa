#pragma once

#include <event2/event.h>
#include <sys/socket.h>

#include <cstdint>
#include <list>
#include <vector>

#include "handles/fd.h"
#include "handles/libevent.h"

/// Connects to the first of several addresses that answers. An address is tried when the one before
/// has failed or has had 300 ms; the attempts go on side by side, the first to connect wins and
/// the others are closed.

struct http_client_address {
    sockaddr_storage bytes{}; // its port is left open
    socklen_t size = 0;
};

/// `socket` is none when no address could be reached, then `error` is the last errno. May run inside
/// the call that starts, and may end the race.
using http_client_race_callback = void (*)(unique_fd socket, int error, void *argument);

/// One race. Once the object is gone, its sockets are closed and its callback does not come.
class http_client_race {
  public:
    http_client_race() = default;
    ~http_client_race() = default;
    http_client_race(const http_client_race &) = delete;
    http_client_race &operator=(const http_client_race &) = delete;

    /// At most once per object.
    void start(event_base *base, std::vector<http_client_address> addresses, std::uint16_t port,
               http_client_race_callback callback, void *argument);

  private:
    struct attempt {
        http_client_race *race = nullptr;
        unique_fd socket;
        event_ptr writable; // dies before the socket
    };

    static void on_writable(evutil_socket_t fd, short, void *argument) noexcept;
    static void on_head_start_over(evutil_socket_t fd, short, void *argument) noexcept;
    void try_next();
    bool try_address(const http_client_address &address);
    void await(unique_fd socket);
    void attempt_ended(const attempt *ended);
    void finish(unique_fd socket);

    event_base *base_ = nullptr;
    std::vector<http_client_address> addresses_;
    std::size_t next_ = 0;
    http_client_race_callback callback_ = nullptr;
    void *argument_ = nullptr;
    int error_ = 0;
    std::list<attempt> attempts_; // under way
    event_ptr head_start_;
};
