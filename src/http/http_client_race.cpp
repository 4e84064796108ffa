#include "http/http_client_race.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <utility>

#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "http_client";

/// What an address has for itself before the next is tried beside it.
constexpr timeval head_start{0, 300'000};

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
                             std::uint16_t port, http_client_race_callback callback, void *argument)
{
    base_ = base;
    addresses_ = std::move(addresses);
    for (http_client_address &address : addresses_) {
        set_port(&address, port);
    }
    callback_ = callback;
    argument_ = argument;
    if (addresses_.size() > 1) {
        head_start_.reset(evtimer_new(base, on_head_start_over, this));
        REQUIRE_MEMORY(head_start_, "head_start");
    }
    try_next();
}

/// Goes on until an attempt is under way; the last statement, since the callback may end the race.
void http_client_race::try_next()
{
    while (next_ < addresses_.size()) {
        if (try_address(addresses_[next_++])) {
            return;
        }
    }
    if (attempts_.empty()) {
        finish({});
    }
}

/// False when it failed at once; the connection may also be there at once.
bool http_client_race::try_address(const http_client_address &address)
{
    unique_fd made{
        socket(address.bytes.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP)};
    if (!made) {
        error_ = errno;
        return false;
    }
    if (connect(made.get(), reinterpret_cast<const sockaddr *>(&address.bytes), address.size) ==
        0) {
        finish(std::move(made));
        return true;
    }
    if (errno != EINPROGRESS) {
        error_ = errno;
        return false;
    }
    await(std::move(made));
    return true;
}

void http_client_race::await(unique_fd socket)
{
    attempt &made = attempts_.emplace_back();
    made.race = this;
    made.socket = std::move(socket);
    made.writable.reset(event_new(base_, made.socket.get(), EV_WRITE, on_writable, &made));
    REQUIRE_MEMORY(made.writable, "writable");
    int rc = event_add(made.writable.get(), nullptr);
    REQUIRE_CALL(rc == 0, "event_add(writable, NULL)", rc);
    if (next_ < addresses_.size()) {
        rc = evtimer_add(head_start_.get(), &head_start);
        REQUIRE_CALL(rc == 0, "evtimer_add(head_start, &head_start)", rc);
    }
}

void http_client_race::on_head_start_over(evutil_socket_t, short, void *argument) noexcept
{
    static_cast<http_client_race *>(argument)->try_next();
}

void http_client_race::on_writable(evutil_socket_t fd, short, void *argument) noexcept
{
    auto *const ready = static_cast<attempt *>(argument);
    http_client_race *const race = ready->race;
    const int error = pending_error(fd);
    if (error == 0) {
        ready->writable.reset();
        race->finish(std::move(ready->socket));
        return;
    }
    race->error_ = error;
    race->attempt_ended(ready);
}

void http_client_race::attempt_ended(const attempt *ended)
{
    attempts_.remove_if([ended](const attempt &other) { return &other == ended; });
    try_next();
}

void http_client_race::finish(unique_fd socket)
{
    attempts_.clear();
    head_start_.reset();
    next_ = addresses_.size();
    callback_(std::move(socket), error_, argument_);
}
