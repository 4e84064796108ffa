#pragma once

#include <event2/event.h>

#include <cstddef>
#include <cstdint>

/// The control socket: HTTP/1.1 with GET alone, on a Unix socket with mode 0660. It tells people and
/// programs of this device how the daemon is, and changes nothing. Loop thread only.
///
/// Each connection has one request and takes one place until its answer has left. One that comes while
/// all places are taken gets 503. Each answer is made in an action of its own.

/// Somebody who follows, somebody who looks, a scraper and one more.
inline constexpr std::size_t control_place_limit = 4;
/// Beside them: connections that have their answer and are about to go.
inline constexpr std::size_t control_ending_limit = 4;
/// How many wait to be accepted. A client that does not wait for its turn, as curl, fails beyond it.
inline constexpr int control_backlog = 32;
/// The longest path of a Unix socket.
inline constexpr std::size_t control_path_limit = 107;

/// Before control_server_start. The base is borrowed for the life of the process.
void control_server_set_event_base(event_base *base);

/// Listens at the path; the empty one is none. A server that listens there already goes on, with its
/// connections; another one is ended first, and its socket removed. A path that cannot be had is a WARN
/// line, and no control socket: the daemon goes on.
void control_server_start(const char *path);

/// Something new has happened, with that number: who waits for one above a lower number is answered.
void control_server_tell(std::uint64_t number);

/// False for the empty path, and for one that could not be had.
[[nodiscard]] bool control_server_is_listening();
