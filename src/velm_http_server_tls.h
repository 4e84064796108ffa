#pragma once

#include <event2/bufferevent.h>
#include <openssl/ssl.h>

#include <cstddef>
#include <cstdint>
#include <string>

/// What the HTTPS server sets in OpenSSL, and what stands between a socket and OpenSSL. Internal to
/// the server's connections.

/// What libevhtp's settings record cannot say.
void http_tls_tune(SSL_CTX *context);

/// What a client has sent, on its way to OpenSSL, which is given whole TLS records only: for one that
/// has begun it takes a buffer of the longest there is, 17 kB, and keeps it until the rest has come.
/// Here only what came is kept, and can be counted. It also asks the kernel less: once for all that
/// has come, where OpenSSL asks twice a record.
struct http_tls_stream {
    SSL *tls = nullptr; // null: not begun, and nothing to end
    int socket = -1;
    /// What the client may send before its handshake is done; more ends the connection. OpenSSL would
    /// take and keep 128 KiB of it.
    std::uint64_t handshake_bytes = 0;
    /// Called when more has come than OpenSSL takes at once; it may not close a connection.
    void (*keeps_some)() noexcept = nullptr;

    std::string held;           // what OpenSSL has not taken yet, from `taken` on
    std::size_t taken = 0;      // of `held`
    std::size_t open = 0;       // how much OpenSSL may take
    bool shakes_hands = true;   // for the first time: a change of keys later is none
    std::uint64_t received = 0; // in all
    bool drained = false;       // the socket had no more when it was read last
    bool ended = false;         // the client has closed its side
};

/// Puts the stream, whose first four members are set, between the socket and the connection, right
/// after that was made. It must stay where it is until `http_tls_end`.
void http_tls_begin(http_tls_stream *stream, bufferevent *bev);
void http_tls_end(http_tls_stream *stream);

/// The handshake is done.
void http_tls_connected(bufferevent *bev);

/// A whole record is here that OpenSSL has not asked for. The kernel reports nothing of it again: so
/// this is to be asked whenever something was read or reading has been enabled, and if it says so,
/// `http_tls_read` called, now or later. That reads in this turn, or not at all while reading is
/// disabled.
[[nodiscard]] bool http_tls_has_more(const http_tls_stream *stream);
void http_tls_read(bufferevent *bev);

/// The client has said that it ends and nothing is owed to it, so that nobody would read the same
/// from us: the socket has gone, and sending would only bring a reset.
void http_tls_end_quietly(const http_tls_stream *stream);

/// How much memory is kept.
[[nodiscard]] std::size_t http_tls_size(const http_tls_stream *stream);
