#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "handles/fd.h"
#include "handles/openssl.h"

/// Bytes to and from a server over a connected socket, plain or through TLS. Nothing here blocks, and
/// one turn of the loop takes at most 32 TLS records and 64 KiB from the server, also of what carries
/// no answer: OpenSSL on its own stays inside one call for as long as such records come. More than 32
/// of those in a row end the connection.

/// What may still be taken from the socket, and where in the records it is.
struct http_client_intake {
    int socket = -1;
    const SSL *tls = nullptr;
    int records_left = 0;       // in this turn
    std::size_t bytes_left = 0; // in this turn
    int without_data = 0;       // records in a row
    bool flooded = false;       // too many of them
    bool heard = false;         // anything at all
    bool ended = false;
    bool says_goodbye = false;           // what is sent now; then the socket is closed
    std::array<unsigned char, 5> head{}; // of the record that is being read
    std::size_t head_read = 0;
    std::size_t body_left = 0;
};

enum class http_client_io {
    done,
    wants_to_read, // later, when the socket can be read from
    wants_to_write,
    ended, // by the other side, in good order
    failed
};

class http_client_stream {
  public:
    /// A null TLS object means plain.
    http_client_stream(unique_fd socket, ssl_ptr tls);
    ~http_client_stream();
    http_client_stream(const http_client_stream &) = delete;
    http_client_stream &operator=(const http_client_stream &) = delete;

    /// Before the first of the calls below in every turn of the loop.
    void begin_turn();

    /// `done` also for a plain connection, at once.
    http_client_io shake_hands();

    /// Writes a part of the bytes. `count` is set when `done`.
    http_client_io write(std::string_view bytes, std::size_t *count);

    /// Reads some bytes. `count` is set when `done`; it is never 0.
    http_client_io read(std::span<char> to, std::size_t *count);

    [[nodiscard]] int socket() const
    {
        return socket_.get();
    }

    /// Why TLS failed, in OpenSSL's words; none when the socket failed it.
    [[nodiscard]] std::span<const unsigned long> tls_errors() const
    {
        return tls_errors_;
    }
    /// An errno; 0 without a failure.
    [[nodiscard]] int socket_error() const
    {
        return socket_error_;
    }
    /// Whether it failed since too many records came that carry nothing.
    [[nodiscard]] bool flooded() const
    {
        return intake_.flooded;
    }
    /// Whether the server has said anything in TLS.
    [[nodiscard]] bool has_heard() const
    {
        return intake_.heard;
    }
    [[nodiscard]] bool is_tls() const
    {
        return tls_ != nullptr;
    }

  private:
    http_client_io tls_outcome(int result);
    http_client_io plain_outcome(ssize_t result, http_client_io wish);

    unique_fd socket_;
    http_client_intake intake_; // outlives the TLS object, which borrows it
    ssl_ptr tls_;
    std::vector<unsigned long> tls_errors_;
    int socket_error_ = 0;
};
