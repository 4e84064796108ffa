#include "http/http_client_connection.h"

#include <event2/bufferevent_ssl.h>
#include <event2/util.h>
#include <openssl/err.h>

#include <array>

#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "http_client";

constexpr ev_ssize_t max_response_head = 16 * 1024;
constexpr ev_ssize_t most_held = 1024 * 1024;

/// The bufferevent closes its socket when it is freed: also one that is opened by a late event.
bufferevent_handle new_transport(event_base *base, http_client_scheme scheme,
                                 const http_client_peer *peer)
{
    if (scheme == http_client_scheme::http) {
        return bufferevent_handle{bufferevent_socket_new(base, -1, BEV_OPT_CLOSE_ON_FREE)};
    }
    ssl_ptr ssl = http_client_tls_new(peer);
    if (ssl == nullptr) {
        LOG_ERROR("%s - sni set failed", "get_conn_by_scheme");
        return nullptr;
    }
    // Takes the TLS object, on failure too.
    return bufferevent_handle{bufferevent_openssl_socket_new(
        base, -1, ssl.release(), BUFFEREVENT_SSL_CONNECTING, BEV_OPT_CLOSE_ON_FREE)};
}

} // namespace

http_client_connection::~http_client_connection()
{
    // libevent frees the TLS object on a later turn of the loop.
    SSL *ssl = transport() != nullptr ? bufferevent_openssl_get_ssl(transport()) : nullptr;
    if (ssl != nullptr) {
        http_client_tls_forget_peer(ssl);
    }
}

bufferevent *http_client_connection::transport() const
{
    return evcon != nullptr ? evhttp_connection_get_bufferevent(evcon.get()) : bufev.get();
}

bool get_conn_by_scheme(http_client_connection *connection, event_base *base,
                        const http_client_target &target, const http_client_peer &peer)
{
    if (!connection->target.host.empty()) {
        return connection->target.same_server(target) && connection->peer == peer;
    }
    if (target.scheme == http_client_scheme::https && !http_client_tls_is_set_up()) {
        LOG_ERROR("%s - ssl ctx not set", __func__);
        return false;
    }
    connection->peer = peer;
    connection->bufev = new_transport(base, target.scheme, &connection->peer);
    if (connection->bufev == nullptr) {
        return false;
    }
    connection->target = target;
    return true;
}

bool http_client_connection_open(http_client_connection *connection, event_base *base,
                                 const char *address, int timeout_s, std::size_t max_body_size)
{
    // evhttp would make a transport of its own, one without TLS.
    if (connection->bufev == nullptr) {
        return false;
    }
    // No resolver here: the address is a number, so nothing is looked up.
    connection->evcon.reset(evhttp_connection_base_bufferevent_new(
        base, nullptr, connection->bufev.get(), address, connection->target.port));
    if (connection->evcon == nullptr) {
        return false;
    }
    (void)connection->bufev.release(); // the connection owns it now
    evhttp_connection_set_timeout(connection->evcon.get(), timeout_s);
    evhttp_connection_set_max_headers_size(connection->evcon.get(), max_response_head);
    evhttp_connection_set_max_body_size(connection->evcon.get(),
                                        static_cast<ev_ssize_t>(max_body_size));
    // libevent has no limit for the line that tells a chunk's size: what comes on top is not read.
    bufferevent_setwatermark(connection->transport(), EV_READ, 0, max_response_head + most_held);
    return true;
}

void http_client_connection_close_on_exec(const http_client_connection *connection)
{
    const evutil_socket_t fd =
        connection->transport() != nullptr ? bufferevent_getfd(connection->transport()) : -1;
    if (fd >= 0) {
        evutil_make_socket_closeonexec(fd);
    }
}

void http_client_connection_log_tls_errors(const http_client_connection *connection,
                                           int socket_error)
{
    bufferevent *const transport = connection->transport();
    if (transport == nullptr || bufferevent_openssl_get_ssl(transport) == nullptr) {
        return;
    }
    for (unsigned long error = bufferevent_get_openssl_error(transport); error != 0;
         error = bufferevent_get_openssl_error(transport)) {
        if (error ==
            SSL_ERROR_SYSCALL) { // libevent's sign for it; OpenSSL has no text for this one
            LOG_WARN("%s - %s: %s", __func__, connection->target.host.c_str(),
                     evutil_socket_error_to_string(socket_error));
            continue;
        }
        std::array<char, 256> text{};
        ERR_error_string_n(error, text.data(), text.size());
        LOG_WARN("%s - %s: %s", __func__, connection->target.host.c_str(), text.data());
    }
}
