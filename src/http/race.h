#pragma once

#include <event2/event.h>
#include <sys/socket.h>

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "handles/fd.h"
#include "handles/libevent.h"
#include "http/stream.h"

/// Finds the first of several addresses behind which a server answers. An address is tried when the
/// one before has failed, or after 300 ms without a connection. The attempts go on side by side. The
/// first to connect greets the server, and the other addresses wait again. When the server ends the
/// connection without an answer to the greeting, or is silent for 2 s, the next address is tried; a
/// silent server may still answer. The first answer wins, and the other connections are closed.
///
/// A plain stream needs no greeting: there the first to connect wins.

struct http_client_address {
    sockaddr_storage bytes{}; // its port is left open
    socklen_t size = 0;
};

/// Makes a stream over a connected socket; null: this attempt has failed.
using http_client_race_opener = std::unique_ptr<http_client_stream> (*)(unique_fd socket,
                                                                        void *argument);

/// `stream` is null when no address could be reached, then `error` is the last errno. `handshake` is
/// where its handshake is: done, waiting or failed. When every server that was reached ended the
/// connection without an answer, it is the stream of the last one, failed. May run inside the call
/// that starts, and may end the race.
using http_client_race_callback = void (*)(std::unique_ptr<http_client_stream> stream,
                                           http_client_io handshake, int error, void *argument);

/// One race. Once the object is gone, its sockets are closed and its callback does not come.
class http_client_race {
  public:
    http_client_race() = default;
    ~http_client_race() = default;
    http_client_race(const http_client_race &) = delete;
    http_client_race &operator=(const http_client_race &) = delete;

    /// At most once per object. Both functions get the argument.
    void start(event_base *base, std::vector<http_client_address> addresses, std::uint16_t port,
               http_client_race_opener opener, http_client_race_callback callback, void *argument);

  private:
    struct attempt {
        http_client_race *race = nullptr;
        http_client_address address;
        unique_fd socket; // until it is connected
        std::unique_ptr<http_client_stream> stream;
        event_ptr ready; // dies before the socket
    };

    static void on_connected(evutil_socket_t fd, short, void *argument) noexcept;
    static void on_answer(evutil_socket_t fd, short, void *argument) noexcept;
    static void on_patience_over(evutil_socket_t fd, short, void *argument) noexcept;
    void try_next();
    bool try_address(const http_client_address &address);
    void greet(attempt *connected);
    void shake_hands(attempt *greeting);
    void await(attempt *waiting, short events, event_callback_fn callback, const timeval &patience);
    void let_others_wait(const attempt *connected);
    void attempt_ended(attempt *ended);
    void finish(std::unique_ptr<http_client_stream> stream, http_client_io handshake);

    event_base *base_ = nullptr;
    std::vector<http_client_address> addresses_; // from `next_` on they wait for their turn
    std::size_t next_ = 0;
    http_client_race_opener opener_ = nullptr;
    http_client_race_callback callback_ = nullptr;
    void *argument_ = nullptr;
    int error_ = 0;
    std::list<attempt> attempts_;                    // under way
    std::unique_ptr<http_client_stream> unanswered_; // the last that ended without an answer
    event_ptr patience_;
};
