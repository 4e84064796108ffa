#pragma once

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <evhtp/evhtp.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "http_server/body.h"
#include "http_server/head_filter.h"

/// What a connection sends, on its way to libevhtp's parser: held back until the parser may have it.
/// First a whole head (see http_server/head_filter.h) and its body in one piece, then nothing
/// until the reply has left. The library keeps each piece that it gets of a body as a block of its own,
/// of a kilobyte and more: bytes that come one by one would take a thousand times their number.
/// Internal to the server's connections.

inline constexpr std::size_t http_server_max_body_size = http_chunks_max_body;

enum class message_phase {
    head,      // gathering the next request's head
    body,      // gathering its body
    answering, // the request is whole; what comes now belongs to the next one
    refused,   // told so; what comes now is thrown away until the client has read that
};

/// The library's own callbacks, put back to work when we have looked at the bytes. A filtering
/// bufferevent would not do: it reports a reply as written when the socket has not taken it, and
/// the library then closes a "Connection: close" client in the middle of it.
struct library_callbacks {
    bufferevent_data_cb read = nullptr;
    bufferevent_data_cb write = nullptr;
    bufferevent_event_cb event = nullptr;
    void *argument = nullptr;
};

struct http_intake {
    evhtp_connection_t *connection = nullptr; // the library's
    in_addr_t address = 0;                    // the client's, for the log
    library_callbacks library;
    message_phase phase = message_phase::head;
    std::string held;         // received, not yet given to the parser
    std::size_t scanned = 0;  // of `held`, while it holds an unfinished head
    std::string head;         // for the parser, while the body is gathered
    bool wants_close = false; // says the head that the parser works on
    bool wants_keep_alive = false;
    http_body body;
    std::size_t handed = 0;       // bytes of this request that the library keeps
    std::size_t kept = 0;         // bytes that the checks keep of its body
    std::size_t thrown_away = 0;  // since the request was refused
    std::size_t refused_room = 0; // of the head that was refused; it counts, and is given back
    std::vector<http_head_lifted> lifted; // of the head that the parser works on
    /// Called with `argument` before a request reaches the library, which keeps it: may close this
    /// connection or another.
    void (*make_room)(void *argument) noexcept = nullptr;
    void *argument = nullptr;
    bool *gone = nullptr; // set when the connection ends inside a call of the library
};

enum class intake_result {
    ended,    // the connection is freed, and the intake with it
    waits,    // for more bytes, or for the reply to leave
    moved_on, // a request has become whole, or a reply has left
    has_next, // a reply has left, and more was sent already: http_intake_next is to look at it
    refused,  // an answer that says so is on its way; the connection is to end soon
};

/// Takes the place of the library's callbacks; the caller's own, which get `argument`, call the
/// functions below. The intake must stay where it is until the connection ends.
void http_intake_start(http_intake *intake, evhtp_connection_t *connection,
                       const library_callbacks &callbacks);

/// The connection has bytes to read, or has sent all that was to be sent.
[[nodiscard]] intake_result http_intake_read(http_intake *intake);
[[nodiscard]] intake_result http_intake_written(http_intake *intake);

/// Takes up what was sent behind the request before. On a turn of its own: else a client that sends
/// thousands of requests at once would have them all answered before anybody else is served.
[[nodiscard]] intake_result http_intake_next(http_intake *intake);

/// The connection is being freed. The owner of the intake calls this before it frees it.
void http_intake_end(http_intake *intake);

/// How much memory the connection takes by what its client has sent.
[[nodiscard]] std::size_t http_intake_size(const http_intake *intake);

/// A request is being checked.
[[nodiscard]] bool http_intake_is_paused(const http_intake *intake);
