#pragma once

#include <arpa/inet.h>
#include <event2/bufferevent_ssl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "handles/libevent.h"
#include "handles/openssl.h"

/// A server on loopback that runs on the test's own loop and says exactly what it is told to.
class test_server {
  public:
    /// Plain without a context.
    explicit test_server(event_base *base, SSL_CTX *tls = nullptr) : base_{base}, tls_{tls}
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        listener_.reset(evconnlistener_new_bind(
            base, accepted, this, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, 16,
            reinterpret_cast<sockaddr *>(&address), sizeof address));
        socklen_t length = sizeof address;
        getsockname(evconnlistener_get_fd(listener_.get()), reinterpret_cast<sockaddr *>(&address),
                    &length);
        port_ = ntohs(address.sin_port);
    }

    [[nodiscard]] std::string port() const
    {
        return std::to_string(port_);
    }

    std::string reply = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
    std::string greeting; // said before anything is asked
    bool close_after_reply = false;
    /// Instead of the reply, once a request is whole.
    std::function<void(bufferevent *)> on_request;
    std::vector<std::string> requests; // whole, head and body
    std::vector<std::string> server_names;
    std::vector<bool> resumed; // whether a request came in a session of an earlier connection
    int connections = 0;

  private:
    struct peer {
        test_server *server = nullptr;
        bufferevent_handle bufev;
        std::string received;
        bool closing = false;
    };

    static void accepted(evconnlistener *, evutil_socket_t fd, sockaddr *, int, void *argument)
    {
        auto *const server = static_cast<test_server *>(argument);
        ++server->connections;
        peer &made = server->peers_.emplace_back();
        made.server = server;
        made.bufev.reset(
            server->tls_ == nullptr
                ? bufferevent_socket_new(server->base_, fd, BEV_OPT_CLOSE_ON_FREE)
                : bufferevent_openssl_socket_new(server->base_, fd, SSL_new(server->tls_),
                                                 BUFFEREVENT_SSL_ACCEPTING, BEV_OPT_CLOSE_ON_FREE));
        bufferevent_setcb(made.bufev.get(), readable, written, ended, &made);
        bufferevent_enable(made.bufev.get(), EV_READ | EV_WRITE);
        bufferevent_write(made.bufev.get(), server->greeting.data(), server->greeting.size());
    }

    static bool whole(const std::string &text)
    {
        const std::size_t head = text.find("\r\n\r\n");
        const std::size_t field = text.find("Content-Length: ");
        if (head == std::string::npos) {
            return false;
        }
        const std::size_t body = field < head ? std::stoul(text.substr(field + 16)) : 0;
        return text.size() >= head + 4 + body;
    }

    static void readable(bufferevent *bufev, void *argument)
    {
        auto *const from = static_cast<peer *>(argument);
        evbuffer *input = bufferevent_get_input(bufev);
        std::string chunk(evbuffer_get_length(input), '\0');
        evbuffer_remove(input, chunk.data(), chunk.size());
        from->received += chunk;
        if (whole(from->received)) {
            from->server->answer(*from);
        }
    }

    void answer(peer &to)
    {
        requests.push_back(std::move(to.received));
        to.received.clear();
        if (SSL *ssl = bufferevent_openssl_get_ssl(to.bufev.get()); ssl != nullptr) {
            const char *name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
            server_names.emplace_back(name != nullptr ? name : "");
            resumed.push_back(SSL_session_reused(ssl) != 0);
        }
        if (on_request) {
            on_request(to.bufev.get());
            return;
        }
        to.closing = close_after_reply;
        if (reply.empty() && to.closing) {
            drop(&to);
            return;
        }
        bufferevent_write(to.bufev.get(), reply.data(), reply.size());
    }

    static void written(bufferevent *, void *argument)
    {
        auto *const to = static_cast<peer *>(argument);
        if (to->closing) {
            to->server->drop(to);
        }
    }

    static void ended(bufferevent *, short events, void *argument)
    {
        auto *const gone = static_cast<peer *>(argument);
        if ((events & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) != 0) {
            gone->server->drop(gone);
        }
    }

    void drop(const peer *gone)
    {
        peers_.remove_if([gone](const peer &other) { return &other == gone; });
    }

    event_base *base_;
    SSL_CTX *tls_;
    evconnlistener_ptr listener_;
    std::list<peer> peers_;
    std::uint16_t port_ = 0;
};
