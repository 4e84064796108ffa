#pragma once

#include <evhtp/evhtp.h>
#include <netinet/in.h>
#include <sys/time.h>

#include <chrono>
#include <cstddef>

#include "handles/libevent.h"

/// Who may shake hands now. OpenSSL takes 44 kB for a TLS handshake and keeps them until it is done,
/// for anybody who has sent a byte: so only a few are under way at a time, and the others wait for
/// their turn. Internal to the server's connections.

struct http_handshake_limits {
    /// Under way at a time, and of these from one address.
    std::size_t total = 8;
    std::size_t of_address = 2;
    /// One that has taken longer is closed when another could begin in its place. Else it may take as
    /// long as a request.
    timeval time{2, 0};
};

/// A connection whose handshake is not done.
struct http_handshake {
    evhtp_connection_t *connection = nullptr;
    in_addr_t address = 0;

    enum class phase { silent, waits, under_way };
    phase now = phase::silent;
    std::chrono::steady_clock::time_point begin; // of what is under way
    event_ptr first_bytes;
};

/// Begins and ends the time in which handshakes may begin.
void http_handshakes_open(event_base *base, const http_handshake_limits &limits);
void http_handshakes_close();

/// The connection, whose first two members are set, has been accepted. It is not read from before
/// something has come and its turn is there. It must stay where it is until `http_handshake_end`.
void http_handshake_await(http_handshake *handshake);

/// The handshake is done, or its connection is being freed. May be called again.
void http_handshake_end(http_handshake *handshake);
