#include "fakes/paused_request.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "async/common_async.h"
#include "handles/evhtp.h"

namespace {

void give_up(const char *what)
{
    std::perror(what);
    std::abort();
}

/// Turns the loop until the condition holds, five seconds at most.
template <typename Condition>
bool turn_until(Condition holds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{5};
    while (!holds() && std::chrono::steady_clock::now() < deadline) {
        event_base_loop(test_loop(), EVLOOP_NONBLOCK);
    }
    return holds();
}

std::string request_text(const std::string &body, const paused_request::headers &sent,
                         const std::string &path)
{
    std::string text = "POST " + path + " HTTP/1.1\r\nHost: velm\r\n";
    for (const auto &[name, value] : sent) {
        text += name + ": " + value + "\r\n";
    }
    return text + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

} // namespace

event_base *test_loop()
{
    static event_base *const base = [] {
        event_base *const made = event_base_new();
        common_async_set_event_base(made);
        common_async_init();
        return made;
    }();
    return base;
}

void turn_test_loop()
{
    event_base_loop(test_loop(), EVLOOP_NONBLOCK);
}

void step_test_loop()
{
    bool passed = false;
    common_async_action_call(
        [](void *flag, short, common_async_context *) { *static_cast<bool *>(flag) = true; },
        &passed);
    while (!passed) {
        event_base_loop(test_loop(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    }
}

void paused_request::pause(evhtp_request_t *request, void *self)
{
    evhtp_request_pause(request);
    static_cast<paused_request *>(self)->request_ = request;
}

std::uint16_t paused_request::forget(evhtp_connection_t *, void *self)
{
    static_cast<paused_request *>(self)->request_ = nullptr;
    static_cast<paused_request *>(self)->connection_ = nullptr;
    return EVHTP_RES_OK;
}

std::uint16_t paused_request::accept(evhtp_connection_t *connection, void *self)
{
    static_cast<paused_request *>(self)->connection_ = connection;
    const int rc = evhtp_connection_hook(connection, evhtp_hook_on_connection_fini, forget, self);
    return rc == 0 ? EVHTP_RES_OK : EVHTP_RES_ERROR;
}

paused_request::paused_request(const std::string &body, const headers &sent,
                               const std::string &path)
    : paused_request{transport::tcp, body, sent, path}
{
}

paused_request paused_request::without_ip_address(const std::string &body)
{
    return {transport::unix_socket, body, {}, "/location"};
}

paused_request::paused_request(transport way, const std::string &body, const headers &sent,
                               const std::string &path)
    : server_{evhtp_new(test_loop(), nullptr)}
{
    evhtp_set_gencb(server_, pause, this);
    evhtp_set_post_accept_cb(server_, accept, this);
    listen_and_connect(way);
    const std::string text = request_text(body, sent, path);
    if (send(client_, text.data(), text.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(text.size())) {
        give_up("send");
    }
    if (!turn_until([this] { return request_ != nullptr; })) {
        give_up("request did not arrive");
    }
}

void paused_request::listen_and_connect(transport way)
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (way == transport::tcp) {
        evhtp_bind_socket(server_, "127.0.0.1", 0, 4);
    } else {
        char directory[] = "/tmp/velm_test_XXXXXX";
        socket_path_ = std::string{mkdtemp(directory)} + "/socket";
        evhtp_bind_socket(server_, ("unix:" + socket_path_).c_str(), 0, 4);
    }
    getsockname(evconnlistener_get_fd(server_->server), reinterpret_cast<sockaddr *>(&address),
                &length);
    client_ = socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(client_, reinterpret_cast<const sockaddr *>(&address), length) != 0) {
        give_up("connect");
    }
}

paused_request::~paused_request()
{
    free_connection();
    evhtp_unbind_socket(server_);
    evhtp_free(server_);
    close(client_);
    if (!socket_path_.empty()) {
        unlink(socket_path_.c_str());
        rmdir(socket_path_.substr(0, socket_path_.rfind('/')).c_str());
    }
}

evhtp_request_t *paused_request::get() const
{
    return request_;
}

void paused_request::add_header(const std::string &name, const std::string &value)
{
    evhtp_headers_add_header(request_->headers_in,
                             evhtp_header_new(name.c_str(), value.c_str(), 1, 1));
}

void paused_request::replace_body(const std::string &body)
{
    evbuffer_drain(request_->buffer_in, evbuffer_get_length(request_->buffer_in));
    evbuffer_add(request_->buffer_in, body.data(), body.size());
}

void paused_request::free_connection()
{
    if (connection_ != nullptr) {
        evhtp_connection_free(connection_);
    }
}

std::string paused_request::reply()
{
    std::string received;
    turn_until([this, &received] {
        char piece[4096];
        const ssize_t count = recv(client_, piece, sizeof piece, MSG_DONTWAIT);
        if (count > 0) {
            received.append(piece, static_cast<std::size_t>(count));
        }
        const std::size_t head = received.find("\r\n\r\n");
        const std::size_t field = received.find("Content-Length: ");
        return head != std::string::npos && field != std::string::npos &&
               received.size() ==
                   head + 4 + std::strtoul(received.c_str() + field + 16, nullptr, 10);
    });
    return received;
}
