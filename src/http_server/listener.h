#pragma once

#include <evhtp/evhtp.h>
#include <netinet/in.h>
#include <sys/time.h>

/// How the server accepts: a few connections in a turn of the loop, and none for a while when that
/// fails. Internal to the server's connections.

/// The listener takes connections for as long as some wait, and somebody may make them as quickly as
/// it takes them: so after this number it waits for the next turn.
inline constexpr unsigned http_listener_turn = 8;

/// What may wait in the kernel, of one connection: replies until their client reads them, and what the
/// client sent until it is read here. A reply has hundreds of bytes. The longest request has 41 kB, but
/// what has come is read at once; the first window has room for all that TCP sends before the first
/// acknowledgement. Left to itself the kernel takes 4 MB each way.
inline constexpr int http_listener_send_buffer = 32 * 1024;
inline constexpr int http_listener_receive_buffer = 32 * 1024;

/// The instance has been bound. `rest` is how long the listener rests when accepting fails.
void http_listener_open(evhtp_t *htp, const timeval &rest);
void http_listener_close();

/// A connection has been accepted.
void http_listener_count();
