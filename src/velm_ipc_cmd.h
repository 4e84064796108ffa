#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>

#include "ipc/input.h"
#include "velm_conn.h"

/// Framing of the location-policy IPC; the frames themselves are in velm/location_policy.h.

/// How long a request waits for its answer.
inline constexpr std::time_t velm_ipc_cmd_request_lifetime_s = 600;

/// The frame parser of a connection (velm_conn_parser). It parses the bytes just read, behind those kept
/// from before. Each request frame (velm_location_request) goes to the handler, with a deadline that is
/// the lifetime away. When the handler returns 0, the frame is answered with busy. A frame of another
/// length is skipped whole. Another type says that the two sides disagree, so everything buffered is
/// thrown away. The parser stops when the connection closes.
void velm_ipc_cmd_read(velm_conn *conn, velm_ipc_cmd_input &input,
                       std::span<const std::uint8_t> bytes, velm_conn_frame_handler handler);

/// Sends an answer or a report (payload at most a velm_location_report), or a request (payload at most a
/// velm_location_request). 1 when the frame was sent or waits for the peer to read. 0 for a closed
/// connection, a payload that is too long, or a null one that is not empty.
int velm_ipc_cmd_send_resp(velm_conn *conn, std::uint16_t type, std::uint32_t id,
                           std::uint32_t status, const void *payload, std::size_t len);
int velm_ipc_cmd_send_req(velm_conn *conn, std::uint16_t type, std::uint32_t id,
                          const void *payload, std::size_t len);
