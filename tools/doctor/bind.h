#pragma once

#include <cstdint>

/// Whether the daemon could have a port: 0, or the error. `kind` is SOCK_STREAM or SOCK_DGRAM; what was
/// had is let go at once.
[[nodiscard]] int velmctl_try_bind(const char *address, std::uint16_t port, int kind);
