#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "handles/libevent.h"
#include "http/answer.h"
#include "http/dns.h"
#include "http/race.h"
#include "http/stream.h"
#include "http/tls.h"
#include "http/uri.h"

/// One connection and the requests that wait for it: it looks the host up, connects, shakes hands,
/// sends the first request and reads its answer, then goes on with the next one, over the same socket
/// where both sides leave it open.
///
/// libevent's own HTTP client is not used for this. It takes no socket that is connected already,
/// opens one address only, keeps an answer in the pieces that it came in, and forgets an answer that
/// is whole when the connection then ends in disorder.

/// How an exchange ended: one of libevent's evhttp_request_error, or one of these.
using http_client_end = int;
inline constexpr http_client_end http_client_answered = -1;
inline constexpr http_client_end http_client_not_connected = -2;

/// A request and its answer. Its owner keeps it until `ended` has run, or cancels it.
struct http_client_exchange {
    explicit http_client_exchange(std::size_t body_size_max) : answer{body_size_max}
    {
    }

    std::string request;      // head and body
    bool leaves_open = false; // for the next one
    http_client_answer answer;
    /// Runs inside the connection's work: it only notes the outcome.
    void (*ended)(http_client_exchange *exchange, http_client_end end) = nullptr;
    void *owner = nullptr;
};

class http_client_connection {
  public:
    http_client_connection() = default;
    ~http_client_connection() = default;
    http_client_connection(const http_client_connection &) = delete;
    http_client_connection &operator=(const http_client_connection &) = delete;

    /// Where it leads; an empty host while it leads nowhere yet.
    [[nodiscard]] const http_client_target &target() const
    {
        return target_;
    }

    /// Makes an empty connection lead to the target; a used one must already do so under the same
    /// checks. False (logged) when it cannot serve.
    [[nodiscard]] bool lead_to(event_base *base, const http_client_target &target,
                               const http_client_peer &peer);

    /// Puts the exchange behind those that wait. It may end inside the call.
    void send(http_client_exchange *exchange);

    /// Forgets the exchange, if it waits here. When it is under way its socket is closed and the next
    /// exchange gets a new one.
    void cancel(const http_client_exchange *exchange);

    /// The last socket error or, under TLS, a line for each of OpenSSL's reasons.
    void log_errors() const;

  private:
    enum class step { none, looking_up, connecting, shaking_hands, sending, receiving, idle };

    static void on_addresses(std::span<const http_client_address> addresses,
                             void *argument) noexcept;
    static std::unique_ptr<http_client_stream> open_stream(unique_fd socket, void *argument);
    static void on_connected(std::unique_ptr<http_client_stream> stream, http_client_io handshake,
                             int error, void *argument) noexcept;
    static void on_ready(evutil_socket_t fd, short events, void *argument) noexcept;
    static void on_next_turn(evutil_socket_t fd, short events, void *argument) noexcept;
    [[nodiscard]] bool needs_tls() const;
    bool make_tls();
    void begin();
    void advance();
    void await(http_client_io result);
    http_client_io take_step();
    http_client_io send_some();
    http_client_io receive_some();
    void watch(short events);
    void close();
    void finish(http_client_end end);
    void forget_session() const;
    void begin_later();

    event_base *base_ = nullptr;
    http_client_target target_;
    http_client_peer peer_;                         // the TLS object of the stream borrows it
    std::vector<http_client_exchange *> exchanges_; // the first is under way
    std::size_t sent_ = 0;                          // bytes of its request
    step step_ = step::none;
    ssl_ptr tls_; // for the next stream, when it is a TLS one
    std::unique_ptr<http_client_dns_lookup> lookup_;
    std::unique_ptr<http_client_race> race_;
    std::unique_ptr<http_client_stream> stream_;
    event_ptr watcher_; // of the stream's socket
    short watched_ = 0;
    event_ptr next_turn_;
};
