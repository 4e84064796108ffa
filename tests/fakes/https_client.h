#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "handles/fd.h"
#include "handles/libevent.h"
#include "handles/openssl.h"

/// A client for the HTTPS server under test. Both live on one thread: whoever waits turns the
/// server's loop, so nothing is timed and nothing races.

/// A fresh P-256 key and a certificate that it signed for itself, as PEM files. The key is encrypted
/// when a passphrase is given. The files go with the object.
class tls_identity {
  public:
    tls_identity() : tls_identity{nullptr}
    {
    }
    explicit tls_identity(const char *passphrase);
    ~tls_identity();
    tls_identity(const tls_identity &) = delete;
    tls_identity &operator=(const tls_identity &) = delete;

    std::string cert_path;
    std::string key_path;

  private:
    std::string directory_;
};

/// A port of 127.0.0.1 that nobody listens on.
[[nodiscard]] unsigned short free_port();

/// Turns the loop until the condition holds; false when 10 s have passed.
[[nodiscard]] bool turn_until(event_base *loop, const std::function<bool()> &condition);

/// Turns the loop for so long: only to show that something does not happen.
void turn_for(event_base *loop, std::chrono::milliseconds time);

struct http_reply {
    int status = 0; // 0: the connection ended first
    std::string head;
    std::string body;
};

class https_client {
  public:
    /// Connects the socket, from the given address.
    https_client(event_base *loop, unsigned short port, const char *from = "127.0.0.1");
    https_client(const https_client &) = delete;
    https_client &operator=(const https_client &) = delete;

    /// Before the handshake.
    void limit_tls(int max_version);
    void resume(SSL_SESSION *session);
    bool handshake();

    /// One TLS record, or more when it is longer than one.
    void send(std::string_view bytes);
    /// One whole reply.
    http_reply receive();
    http_reply ask(std::string_view request);
    /// The server has closed the connection; false when it has not within 10 s.
    bool is_closed();
    bool has_ended();
    /// What has been received and no call has returned yet.
    [[nodiscard]] const std::string &unread() const
    {
        return received_;
    }
    /// Sends a reset.
    void reset();

    SSL *tls()
    {
        return tls_.get();
    }
    [[nodiscard]] int fd() const
    {
        return fd_.get();
    }
    [[nodiscard]] std::size_t sessions() const
    {
        return sessions_;
    }
    /// Lengths of the records that brought the last reply.
    std::string records;

  private:
    bool read_some();
    static int count_session(SSL *tls, SSL_SESSION *session);

    event_base *loop_;
    ssl_ctx_ptr context_;
    unique_fd fd_;
    ssl_ptr tls_;
    std::string received_;
    bool ended_ = false;
    std::size_t sessions_ = 0;
};
