#pragma once

#include <event2/event.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>

#include "handles/fd.h"
#include "handles/handle.h"
#include "ipc/input.h"

/// One connection of the location-policy IPC: a connected SOCK_SEQPACKET socket on the loop.
///
/// Each write leaves as one packet, or not at all. While the peer does not read, up to 64 packets
/// wait. One more ends the connection. 15 s of waiting end it too. They add up until the peer has
/// read all that was sent: a packet that it reads earns it little time.
///
/// The frame parser gets what is read in pieces of at most 1024 bytes. One packet is read per turn
/// of the loop. After a packet of more than 4096 bytes the connection rests, so that others are
/// served (docs/limits.md). There is no time-out for reading: a client may stay silent for ever.
///
/// An error or the end of the stream marks the connection closed, once. Its socket is given back at
/// that moment, and what waited is dropped. After that nothing is read or written. The object lives
/// until its owner destroys it, so the connection may end inside any call.

struct velm_conn;
struct velm_ipc;

inline constexpr std::size_t velm_conn_queue_limit = 64;

/// Takes one request frame. `payload` is borrowed. Non-zero when the request was taken; 0 answers
/// it with busy. It may write to the connection but must not destroy it.
using velm_conn_frame_handler = int (*)(velm_conn *conn, std::uint32_t id, std::uint16_t type,
                                        const void *payload, std::size_t len, std::time_t deadline);

/// Cuts what is read into frames and hands each request to the handler, which may be null:
/// velm_ipc_cmd_read. `bytes` is borrowed. It may write to the connection but must not destroy it.
using velm_conn_parser = void (*)(velm_conn *conn, velm_ipc_cmd_input &input,
                                  std::span<const std::uint8_t> bytes,
                                  velm_conn_frame_handler handler);

/// Told once, when the connection has just been marked closed. It must not destroy the connection.
using velm_conn_closed_handler = void (*)(velm_conn *conn);

/// Told when the last packet that waited has left. It must not destroy the connection.
using velm_conn_drained_handler = void (*)(velm_conn *conn);

/// Null logs and does nothing else.
void velm_conn_destroy(velm_conn *conn) noexcept;
using velm_conn_ptr = handle<velm_conn, velm_conn_destroy>;

/// Takes a connected, non-blocking socket over. `server` is handed back by velm_conn_server and
/// may be null; without a handler the frames are parsed and dropped. Null when the socket cannot be
/// watched; it is closed then.
[[nodiscard]] velm_conn_ptr velm_conn_create(event_base *base, unique_fd socket, velm_ipc *server,
                                             velm_conn_parser parser,
                                             velm_conn_frame_handler handler);

/// Without one nobody is told.
void velm_conn_set_closed_handler(velm_conn *conn, velm_conn_closed_handler handler);
void velm_conn_set_drained_handler(velm_conn *conn, velm_conn_drained_handler handler);

/// Ends the connection as its peer would. Nothing happens to one that is closed.
void velm_conn_close(velm_conn *conn);

[[nodiscard]] velm_ipc *velm_conn_server(const velm_conn *conn);
[[nodiscard]] bool velm_conn_is_closed(const velm_conn *conn);

/// Whether a packet waits for the peer to read.
[[nodiscard]] bool velm_conn_is_waiting(const velm_conn *conn);

/// Sends the bytes as one packet, now or when the peer has read. False when the connection is
/// closed or ends by this.
bool velm_conn_write(velm_conn *conn, std::span<const std::uint8_t> packet);
