#include "http/connection.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "crypto/openssl_error.h"
#include "http/sessions.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "http_client";

constexpr std::size_t read_at_once = std::size_t{16} * 1024; // as much as a TLS record may hold

/// The outcome of an answer that is not incomplete.
http_client_end end_of(http_client_answer_state state)
{
    switch (state) {
    case http_client_answer_state::whole:
        return http_client_answered;
    case http_client_answer_state::not_http:
        return EVREQ_HTTP_INVALID_HEADER;
    case http_client_answer_state::broken_body:
        return EVREQ_HTTP_DATA_TOO_LONG;
    case http_client_answer_state::incomplete:
        break;
    }
    return EVREQ_HTTP_EOF;
}

} // namespace

bool http_client_connection::lead_to(event_base *base, const http_client_target &target,
                                     const http_client_peer &peer)
{
    constexpr char caller[] = "get_conn_by_scheme";
    if (!target_.host.empty()) {
        return target_.same_server(target) && peer_ == peer;
    }
    if (target.scheme == http_client_scheme::https && !http_client_tls_is_set_up()) {
        LOG_ERROR("%s - ssl ctx not set", caller);
        return false;
    }
    base_ = base;
    peer_ = peer;
    if (target.scheme == http_client_scheme::https && !make_tls()) {
        LOG_ERROR("%s - sni set failed", caller);
        return false;
    }
    target_ = target;
    return true;
}

bool http_client_connection::needs_tls() const
{
    return target_.scheme == http_client_scheme::https && tls_ == nullptr;
}

/// With the context of now, whatever replaces it meanwhile.
bool http_client_connection::make_tls()
{
    tls_ = http_client_tls_is_set_up() ? http_client_tls_new(&peer_) : nullptr;
    return tls_ != nullptr;
}

void http_client_connection::send(http_client_exchange *exchange)
{
    exchanges_.push_back(exchange);
    if (exchanges_.size() == 1) {
        begin();
    }
}

/// The first exchange goes over the open socket, or over a new one.
void http_client_connection::begin()
{
    sent_ = 0;
    if (step_ == step::idle) {
        step_ = step::sending;
        watch(EV_WRITE);
        return;
    }
    if (needs_tls() && !make_tls()) {
        finish(EVREQ_HTTP_EOF);
        return;
    }
    step_ = step::looking_up;
    lookup_ = std::make_unique<http_client_dns_lookup>();
    lookup_->start(peer_.host.c_str(), on_addresses, this);
}

void http_client_connection::on_addresses(std::span<const http_client_address> addresses,
                                          void *argument) noexcept
{
    auto *const self = static_cast<http_client_connection *>(argument);
    if (addresses.empty()) {
        self->finish(EVREQ_HTTP_EOF);
        return;
    }
    self->step_ = step::connecting;
    self->race_ = std::make_unique<http_client_race>();
    self->race_->start(self->base_, {addresses.begin(), addresses.end()}, self->target_.port,
                       open_stream, on_connected, self);
}

/// The first one takes the TLS object that was made beforehand.
std::unique_ptr<http_client_stream> http_client_connection::open_stream(unique_fd socket,
                                                                        void *argument)
{
    auto *const self = static_cast<http_client_connection *>(argument);
    if (self->needs_tls() && !self->make_tls()) {
        return nullptr;
    }
    return std::make_unique<http_client_stream>(std::move(socket), std::move(self->tls_));
}

void http_client_connection::on_connected(std::unique_ptr<http_client_stream> stream,
                                          http_client_io handshake, int error,
                                          void *argument) noexcept
{
    auto *const self = static_cast<http_client_connection *>(argument);
    if (stream == nullptr) {
        LOG_WARN("%s - cannot connect to %s: %s", __func__, self->peer_.host.c_str(),
                 std::strerror(error));
        self->finish(http_client_not_connected);
        return;
    }
    self->stream_ = std::move(stream);
    self->step_ = handshake == http_client_io::done ? step::sending : step::shaking_hands;
    // The race needs nothing of itself any more, so it may end in here.
    self->await(handshake == http_client_io::done ? self->take_step() : handshake);
}

void http_client_connection::watch(short events)
{
    if (watched_ == events) {
        return;
    }
    watched_ = events;
    watcher_.reset(event_new(base_, stream_->socket(), static_cast<short>(events | EV_PERSIST),
                             on_ready, this));
    REQUIRE_MEMORY(watcher_, "watcher");
    const int rc = event_add(watcher_.get(), nullptr);
    REQUIRE_CALL(rc == 0, "event_add(watcher, NULL)", rc);
}

void http_client_connection::on_ready(evutil_socket_t, short, void *argument) noexcept
{
    static_cast<http_client_connection *>(argument)->advance();
}

void http_client_connection::advance()
{
    if (step_ == step::idle) {
        close(); // the server has ended it, or speaks unasked
        return;
    }
    stream_->begin_turn();
    await(take_step());
}

void http_client_connection::await(http_client_io result)
{
    switch (result) {
    case http_client_io::done:
        return; // its answer is whole
    case http_client_io::wants_to_read:
        watch(EV_READ);
        return;
    case http_client_io::wants_to_write:
        watch(EV_WRITE);
        return;
    case http_client_io::ended:
        finish(end_of(exchanges_.front()->answer.end()));
        return;
    case http_client_io::failed:
        finish(EVREQ_HTTP_EOF);
        return;
    }
}

/// Goes through the steps as far as the stream allows.
http_client_io http_client_connection::take_step()
{
    http_client_io result = http_client_io::done;
    if (step_ == step::shaking_hands && (result = stream_->shake_hands()) == http_client_io::done) {
        step_ = step::sending;
    }
    if (step_ == step::sending && (result = send_some()) == http_client_io::done) {
        step_ = step::receiving;
        return http_client_io::wants_to_read; // hardly there yet
    }
    if (step_ == step::receiving) {
        result = receive_some();
    }
    return result;
}

http_client_io http_client_connection::send_some()
{
    const std::string_view request = exchanges_.front()->request;
    while (sent_ < request.size()) {
        std::size_t count = 0;
        const http_client_io result = stream_->write(request.substr(sent_), &count);
        if (result != http_client_io::done) {
            return result;
        }
        sent_ += count;
    }
    return http_client_io::done;
}

http_client_io http_client_connection::receive_some()
{
    std::array<char, read_at_once>
        bytes; // NOLINT(cppcoreguidelines-pro-type-member-init): read into
    for (;;) {
        std::size_t count = 0;
        const http_client_io result = stream_->read(bytes, &count);
        if (result != http_client_io::done) {
            return result;
        }
        const http_client_answer_state state =
            exchanges_.front()->answer.read({bytes.data(), count});
        if (state != http_client_answer_state::incomplete) {
            finish(end_of(state));
            return http_client_io::done;
        }
    }
}

void http_client_connection::close()
{
    watcher_.reset();
    watched_ = 0;
    stream_.reset();
    race_.reset();
    lookup_.reset();
    step_ = step::none;
}

/// Tells the first exchange its outcome. The next one begins in a turn of its own.
void http_client_connection::finish(http_client_end end)
{
    http_client_exchange *const ended = exchanges_.front();
    exchanges_.erase(exchanges_.begin());
    ended->ended(ended, end); // which may ask for the errors
    if (end == http_client_answered && ended->leaves_open && ended->answer.leaves_open()) {
        step_ = step::idle;
        watch(EV_READ);
    } else {
        close();
    }
    if (end != http_client_answered) {
        forget_session();
    }
    if (!exchanges_.empty()) {
        begin_later();
    }
}

/// Of a connection that has failed. Tickets come before the answer.
void http_client_connection::forget_session() const
{
    if (target_.scheme == http_client_scheme::https) {
        http_client_session_forget(peer_.host);
    }
}

void http_client_connection::begin_later()
{
    constexpr timeval at_once{0, 0};
    next_turn_.reset(evtimer_new(base_, on_next_turn, this));
    REQUIRE_MEMORY(next_turn_, "next_turn");
    const int rc = evtimer_add(next_turn_.get(), &at_once);
    REQUIRE_CALL(rc == 0, "evtimer_add(next_turn, &at_once)", rc);
}

void http_client_connection::on_next_turn(evutil_socket_t, short, void *argument) noexcept
{
    static_cast<http_client_connection *>(argument)->begin();
}

void http_client_connection::cancel(const http_client_exchange *exchange)
{
    const auto found = std::find(exchanges_.begin(), exchanges_.end(), exchange);
    if (found == exchanges_.end()) {
        return;
    }
    const bool under_way = found == exchanges_.begin();
    exchanges_.erase(found);
    if (!under_way) {
        return;
    }
    close();
    forget_session();
    next_turn_.reset();
    if (!exchanges_.empty()) {
        begin_later();
    }
}

void http_client_connection::log_errors() const
{
    constexpr char caller[] = "http_client_connection_log_tls_errors";
    if (stream_ == nullptr || !stream_->is_tls()) {
        return;
    }
    const char *const host = peer_.host.c_str();
    if (stream_->flooded()) {
        LOG_WARN("%s - %s: too many records that carry nothing", caller, host);
    } else if (stream_->tls_errors().empty() && stream_->socket_error() != 0) {
        LOG_WARN("%s - %s: %s", caller, host, std::strerror(stream_->socket_error()));
    }
    for (const unsigned long error : stream_->tls_errors()) {
        LOG_WARN("%s - %s: %s", caller, host, openssl_error_text(error).c_str());
    }
}
