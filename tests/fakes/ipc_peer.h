#pragma once

#include <event2/event.h>
#include <velm/location_policy.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "handles/fd.h"

/// The other end of the location-policy IPC, for tests: a client on a real socket, and frames put
/// together by hand.

using ipc_bytes = std::vector<std::uint8_t>;

/// A connected client; none when nobody listens.
[[nodiscard]] unique_fd ipc_connect(const std::string &path);

/// Sends one packet; false when the kernel does not take it.
bool ipc_send(const unique_fd &socket, const ipc_bytes &packet);

/// The next packet that lies there; none when there is none; empty at the end of the stream.
[[nodiscard]] std::optional<ipc_bytes> ipc_receive(const unique_fd &socket);

/// Header and payload behind each other; the time is left out.
[[nodiscard]] ipc_bytes ipc_frame(std::uint16_t type, std::uint32_t id, const ipc_bytes &payload,
                                  std::uint32_t status = 0);

/// A request of 156 bytes.
[[nodiscard]] ipc_bytes ipc_request(std::uint32_t id, std::uint16_t timeout = 60);

[[nodiscard]] velm_frame_header ipc_header(const ipc_bytes &packet);
[[nodiscard]] ipc_bytes ipc_payload(const ipc_bytes &packet);

/// Turns the loop until the condition holds; false when it never did in that time.
bool ipc_turn_until(event_base *base, const std::function<bool()> &condition,
                    std::chrono::seconds limit = std::chrono::seconds{10});

/// Turns the loop as long as it has something to do at once.
void ipc_turn(event_base *base, int turns = 8);
