#include "http/race.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <utility>

#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "http_client";

/// What an address has for itself before the next is tried beside it. A server's answer may take
/// longer than its connection: it is busy, and the uplink carries more.
constexpr timeval patience_before_connection{0, 300'000};
constexpr timeval patience_before_answer{2, 0};

void set_port(http_client_address *address, std::uint16_t port)
{
    if (address->bytes.ss_family == AF_INET6) {
        reinterpret_cast<sockaddr_in6 *>(&address->bytes)->sin6_port = htons(port);
    } else {
        reinterpret_cast<sockaddr_in *>(&address->bytes)->sin_port = htons(port);
    }
}

int pending_error(int socket)
{
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

} // namespace

void http_client_race::start(event_base *base, std::vector<http_client_address> addresses,
                             std::uint16_t port, http_client_race_opener opener,
                             http_client_race_callback callback, void *argument)
{
    base_ = base;
    addresses_ = std::move(addresses);
    for (http_client_address &address : addresses_) {
        set_port(&address, port);
    }
    opener_ = opener;
    callback_ = callback;
    argument_ = argument;
    if (addresses_.size() > 1) {
        patience_.reset(evtimer_new(base, on_patience_over, this));
        REQUIRE_MEMORY(patience_, "patience");
    }
    try_next();
}

/// Goes on until an attempt is under way; the last statement, since the callback may end the race.
void http_client_race::try_next()
{
    while (next_ < addresses_.size()) {
        const http_client_address address = addresses_[next_++];
        if (try_address(address)) {
            return;
        }
    }
    if (attempts_.empty()) {
        finish(std::move(unanswered_), http_client_io::failed);
    }
}

/// False when it failed at once.
bool http_client_race::try_address(const http_client_address &address)
{
    unique_fd made{
        socket(address.bytes.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP)};
    if (!made) {
        error_ = errno;
        return false;
    }
    const int rc =
        connect(made.get(), reinterpret_cast<const sockaddr *>(&address.bytes), address.size);
    if (rc != 0 && errno != EINPROGRESS) {
        error_ = errno;
        return false;
    }
    attempt &added = attempts_.emplace_back();
    added.race = this;
    added.address = address;
    added.socket = std::move(made);
    await(&added, EV_WRITE, on_connected, patience_before_connection);
    return true;
}

/// The next address is tried beside it when the patience is over.
void http_client_race::await(attempt *waiting, short events, event_callback_fn callback,
                             const timeval &patience)
{
    const int fd = waiting->stream ? waiting->stream->socket() : waiting->socket.get();
    waiting->ready.reset(event_new(base_, fd, events, callback, waiting));
    REQUIRE_MEMORY(waiting->ready, "ready");
    int rc = event_add(waiting->ready.get(), nullptr);
    REQUIRE_CALL(rc == 0, "event_add(ready, NULL)", rc);
    if (next_ < addresses_.size()) {
        rc = evtimer_add(patience_.get(), &patience);
        REQUIRE_CALL(rc == 0, "evtimer_add(patience, &patience)", rc);
    }
}

void http_client_race::on_patience_over(evutil_socket_t, short, void *argument) noexcept
{
    static_cast<http_client_race *>(argument)->try_next();
}

void http_client_race::on_connected(evutil_socket_t fd, short, void *argument) noexcept
{
    auto *const connected = static_cast<attempt *>(argument);
    http_client_race *const race = connected->race;
    const int error = pending_error(fd);
    if (error == 0) {
        race->greet(connected);
        return;
    }
    race->error_ = error;
    race->attempt_ended(connected);
}

void http_client_race::greet(attempt *connected)
{
    let_others_wait(connected);
    connected->ready.reset();
    connected->stream = opener_(std::move(connected->socket), argument_);
    if (connected->stream == nullptr) {
        attempt_ended(connected);
        return;
    }
    shake_hands(connected);
}

/// One connection is enough for now. Those that have greeted stay.
void http_client_race::let_others_wait(const attempt *connected)
{
    attempts_.remove_if([this, connected](const attempt &other) {
        const bool connecting = &other != connected && other.stream == nullptr;
        if (connecting) {
            addresses_.push_back(other.address);
        }
        return connecting;
    });
}

void http_client_race::on_answer(evutil_socket_t, short, void *argument) noexcept
{
    auto *const greeting = static_cast<attempt *>(argument);
    greeting->race->shake_hands(greeting);
}

/// Up to the first bytes of an answer, whatever they say: also a refusal comes from a server.
void http_client_race::shake_hands(attempt *greeting)
{
    http_client_stream &stream = *greeting->stream;
    stream.begin_turn();
    const http_client_io result = stream.shake_hands();
    if (result == http_client_io::done || stream.has_heard()) {
        finish(std::move(greeting->stream), result);
        return;
    }
    switch (result) {
    case http_client_io::wants_to_read:
        await(greeting, EV_READ, on_answer, patience_before_answer);
        return;
    case http_client_io::wants_to_write:
        await(greeting, EV_WRITE, on_answer, patience_before_answer);
        return;
    case http_client_io::done:
    case http_client_io::ended:
    case http_client_io::failed:
        attempt_ended(greeting);
        return;
    }
}

void http_client_race::attempt_ended(attempt *ended)
{
    if (ended->stream != nullptr) {
        unanswered_ = std::move(ended->stream);
    }
    attempts_.remove_if([ended](const attempt &other) { return &other == ended; });
    try_next();
}

void http_client_race::finish(std::unique_ptr<http_client_stream> stream, http_client_io handshake)
{
    attempts_.clear();
    unanswered_.reset();
    patience_.reset();
    next_ = addresses_.size();
    callback_(std::move(stream), handshake, error_, argument_);
}
