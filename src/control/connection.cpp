#include "control/connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

#include "control/request.h"
#include "control/routes.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "control";

/// A client that has closed its side for writing alone still wants its answer.
bool is_gone(int socket)
{
    pollfd peer{socket, 0, 0};
    return poll(&peer, 1, 0) > 0 && (peer.revents & (POLLHUP | POLLERR)) != 0;
}

bool is_for_later(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

[[gnu::noinline]] event_ptr make_event(event_base *base, int fd, short what,
                                       event_callback_fn callback, void *self)
{
    event_ptr made{event_new(base, fd, what, callback, self)};
    REQUIRE_MEMORY(made, "event");
    return made;
}

void add_event(const event_ptr &event)
{
    const int rc = event_add(event.get(), nullptr);
    REQUIRE_CALL(rc == 0, "event_add(event, NULL)", rc);
}

} // namespace

control_connection::control_connection(event_base *base, unique_fd socket,
                                       const control_connection_owner &owner)
    : owner_{owner}, socket_{std::move(socket)}
{
    const int fd = socket_.get();
    readable_ = make_event(base, fd, EV_READ | EV_PERSIST, on_readable, this);
    writable_ = make_event(base, fd, EV_WRITE | EV_PERSIST, on_writable, this);
    timer_ = make_event(base, -1, 0, on_time_up, this);
    add_event(readable_);
    set_timer(control_head_time);
}

void control_connection::set_timer(const timeval &time)
{
    const int rc = evtimer_add(timer_.get(), &time);
    REQUIRE_CALL(rc == 0, "evtimer_add(timer, &time)", rc);
}

void control_connection::read_head(const char *bytes, std::size_t size)
{
    text_.append(bytes, size);
    switch (control_request_read(text_).state) {
    case control_head_state::bad:
        answer(control_answer_text(control_refusal(400, "this is no HTTP request")));
        return;
    case control_head_state::whole:
        become_due();
        return;
    case control_head_state::incomplete:
        break;
    }
    if (text_.size() >= control_head_limit) {
        answer(control_answer_text(control_refusal(431, "the head of the request is too long")));
    }
}

/// What it sends behind its request means nothing.
void control_connection::client_has_said_all()
{
    if (phase_ == control_phase::ending || is_gone(socket_.get())) {
        owner_.ended(*this);
        return;
    }
    event_del(readable_.get());
    has_said_all_ = true;
    if (phase_ == control_phase::head) {
        answer(control_answer_text(control_refusal(400, "half a request")));
    }
}

void control_connection::on_readable(evutil_socket_t fd, short, void *self) noexcept
{
    auto *const me = static_cast<control_connection *>(self);
    std::array<char, control_head_limit> bytes;
    const bool is_head = me->phase_ == control_phase::head;
    const std::size_t room = is_head ? bytes.size() - me->text_.size() : bytes.size();
    const ssize_t size = recv(fd, bytes.data(), room, 0);
    if (size < 0) {
        if (!is_for_later(errno)) {
            me->owner_.ended(*me);
        }
    } else if (size == 0) {
        me->client_has_said_all();
    } else if (is_head) {
        me->read_head(bytes.data(), static_cast<std::size_t>(size));
    }
}

void control_connection::on_writable(evutil_socket_t, short, void *self) noexcept
{
    static_cast<control_connection *>(self)->send();
}

void control_connection::on_time_up(evutil_socket_t, short, void *self) noexcept
{
    auto *const me = static_cast<control_connection *>(self);
    if (me->phase_ == control_phase::waiting) {
        me->become_due();
    } else if (me->phase_ != control_phase::due) {
        LOG_DEBUG("%s - closing a connection that let its time pass", __func__);
        me->owner_.ended(*me);
    }
}

void control_connection::wait(std::uint64_t above, const timeval &time)
{
    phase_ = control_phase::waiting;
    has_waited_ = true;
    above_ = above;
    set_timer(time);
}

void control_connection::become_due()
{
    phase_ = control_phase::due;
    owner_.due(*this);
}

bool control_connection::is_left() const
{
    return has_said_all_ && is_gone(socket_.get());
}

void control_connection::answer(std::string text)
{
    phase_ = control_phase::answering;
    text_ = std::move(text);
    set_timer(control_answer_time);
    send();
}

void control_connection::has_sent_all()
{
    if (has_said_all_) {
        owner_.ended(*this);
        return;
    }
    phase_ = control_phase::ending;
    std::string{}.swap(text_);
    event_del(writable_.get());
    shutdown(socket_.get(), SHUT_WR);
    set_timer(control_ending_time);
}

void control_connection::send()
{
    const ssize_t size = ::send(socket_.get(), text_.data() + sent_, text_.size() - sent_,
                                MSG_NOSIGNAL | MSG_DONTWAIT);
    if (size < 0 && !is_for_later(errno)) {
        owner_.ended(*this);
        return;
    }
    sent_ += size < 0 ? 0 : static_cast<std::size_t>(size);
    if (sent_ == text_.size()) {
        has_sent_all();
    } else {
        add_event(writable_);
    }
}
