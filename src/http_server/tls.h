#pragma once

#include <event2/bufferevent.h>
#include <netinet/in.h>
#include <openssl/ssl.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "http_server/tls_settings.h"

/// What stands between a socket and OpenSSL. Internal to the server's connections.

/// What one turn of the loop hands OpenSSL of one connection: it stays inside one call for as long as
/// records come that hold no data, and a client may send nothing else.
inline constexpr std::size_t http_tls_turn_records = 16;
inline constexpr std::size_t http_tls_turn_bytes = 32 * 1024;
/// Records in a row without data, after the handshake. A client has reason for one: new keys.
inline constexpr std::size_t http_tls_max_silent_records = 32;

/// The room that libevent makes to read into: for a record that needs more it makes another.
inline constexpr std::size_t http_tls_read_room = 1024;

/// What OpenSSL keeps while its answer to a client's new keys cannot be sent: a record read, a record
/// sent, and the room for the messages of a handshake.
inline constexpr std::size_t http_tls_blocked_keys = 48 * 1024;

/// What a client has sent, on its way to OpenSSL, which is given whole TLS records only: for one that
/// has begun it takes a buffer of the longest there is, 17 kB, and keeps it until the rest has come.
/// Here only what came is kept, and can be counted. It also asks the kernel less: once for all that
/// has come, where OpenSSL asks twice a record.
struct http_tls_stream {
    SSL *tls = nullptr;         // null: not begun, and nothing to end
    bufferevent *bev = nullptr; // set by http_tls_begin
    int socket = -1;
    in_addr_t address = 0; // the client's, for the log
    /// What the client may send before its handshake is done; more ends the connection. OpenSSL would
    /// take and keep 128 KiB of it.
    std::uint64_t handshake_bytes = 0;
    /// Called when more has come than OpenSSL takes at once, and when the kernel takes no more of what is
    /// to be sent; it may not close a connection.
    void (*keeps_some)() noexcept = nullptr;
    /// Called with `argument` when a turn's share is used up: `http_tls_next_turn` and `http_tls_read`
    /// are to be called in the next turn.
    void (*wants_turn)(void *argument) noexcept = nullptr;
    void *argument = nullptr;

    std::string held;             // what OpenSSL has not taken yet, from `taken` on
    std::size_t taken = 0;        // of `held`
    std::size_t open = 0;         // how much OpenSSL may take
    bool shakes_hands = true;     // for the first time: a change of keys later is none
    std::uint64_t received = 0;   // in all
    bool drained = false;         // the socket had no more when it was read last
    bool ended = false;           // the client has closed its side
    bool blocked = false;         // the kernel has not taken the last record that was to be sent
    std::size_t turn_records = 0; // handed to OpenSSL in this turn
    std::size_t turn_bytes = 0;
    std::size_t silent_records = 0; // since the last one that brought data
};

/// Puts the stream, whose members down to `argument` are set, between the socket and the connection, right
/// after that was made. It must stay where it is until `http_tls_end`.
void http_tls_begin(http_tls_stream *stream, bufferevent *bev);
void http_tls_end(http_tls_stream *stream);

/// The handshake is done.
void http_tls_connected(bufferevent *bev);

/// The connection has taken the data of what was read last.
void http_tls_brought_data(http_tls_stream *stream);

/// The share of a turn is used up, or begins anew.
[[nodiscard]] bool http_tls_turn_is_over(const http_tls_stream *stream);
void http_tls_next_turn(http_tls_stream *stream);

/// A whole record is here that OpenSSL has not asked for. The kernel reports nothing of it again: so
/// this is to be asked whenever something was read or reading has been enabled, and if it says so,
/// `http_tls_read` called, now or later. That reads in this turn. While reading is disabled it reads
/// nothing, and this is to be asked again when reading has been enabled.
[[nodiscard]] bool http_tls_has_more(const http_tls_stream *stream);
void http_tls_read(bufferevent *bev);

/// What was made to read into and is not used any more goes. Once more when all have been read.
void http_tls_give_back();

/// Writes a last text and says goodbye, at once. The client is still heard.
void http_tls_say_last(SSL *tls, int socket, std::string_view text);

/// The client has said that it ends and nothing is owed to it, so that nobody would read the same
/// from us: the socket has gone, and sending would only bring a reset.
void http_tls_end_quietly(const http_tls_stream *stream);

/// How much memory is kept.
[[nodiscard]] std::size_t http_tls_size(const http_tls_stream *stream);
