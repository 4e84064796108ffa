#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "handles/fd.h"
#include "handles/openssl.h"
#include "https_load_options.h"

/// One TLS connection of the load client: non-blocking, one request at a time.

using load_clock = std::chrono::steady_clock;

enum class load_progress {
    wants_read,
    wants_write,
    ready,    // connected, with nothing outstanding
    answered, // a whole answer has come
    closed,   // the server ended the connection in order
    failed,
};

class load_connection {
  public:
    load_connection(SSL_CTX *context, const load_options *options, unsigned number);

    /// Begins a connection, in the place of the one before. `session` may be null.
    load_progress open(SSL_SESSION *session);

    /// Drives the handshake or the request. After `ready` or `answered` the next is begin_request.
    load_progress advance();

    /// `request` is borrowed until the answer.
    load_progress begin_request(const std::string *request);

    void close();

    [[nodiscard]] int descriptor() const
    {
        return socket_.get();
    }
    [[nodiscard]] SSL *tls() const
    {
        return tls_.get();
    }
    /// Of the last answer.
    [[nodiscard]] int status() const
    {
        return status_;
    }
    [[nodiscard]] bool offered_session() const
    {
        return offered_session_;
    }
    [[nodiscard]] bool ends_after_answer() const
    {
        return ends_after_answer_;
    }
    [[nodiscard]] load_clock::time_point opened_at() const
    {
        return opened_at_;
    }
    [[nodiscard]] load_clock::time_point asked_at() const
    {
        return asked_at_;
    }

  private:
    load_progress shake_hands();
    load_progress send_rest();
    load_progress receive();
    load_progress wanted(int result) const;
    bool read_head();

    SSL_CTX *context_;
    const load_options *options_;
    unsigned number_;
    unique_fd socket_;
    ssl_ptr tls_;
    const std::string *request_ = nullptr;
    std::size_t sent_ = 0;
    std::string answer_;
    std::size_t answer_size_ = 0; // 0 until the head is whole
    int status_ = 0;
    bool ends_after_answer_ = false;
    bool offered_session_ = false;
    bool connected_ = false;
    load_clock::time_point opened_at_;
    load_clock::time_point asked_at_;
};
