#pragma once

#include <velm/location_policy.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// The daemon's location socket seen from a client.

using velmctl_deadline = std::optional<std::chrono::steady_clock::time_point>; // none: for ever

/// A frame that is what its header says, with its payload.
struct velmctl_frame {
    velm_frame_header header;
    std::vector<std::uint8_t> payload;
};

enum class velmctl_received { frame, timed_out, failed };

/// Connected for as long as it lives. Failures say why on standard error.
class velmctl_client {
  public:
    velmctl_client() = default;
    velmctl_client(const velmctl_client &) = delete;
    velmctl_client &operator=(const velmctl_client &) = delete;
    ~velmctl_client();

    [[nodiscard]] bool connect(const std::string &path);
    [[nodiscard]] bool send_request(std::uint32_t id, std::uint16_t timeout_s) const;
    /// The next frame. Packets that are no frame are reported and passed over.
    [[nodiscard]] velmctl_received receive(velmctl_deadline deadline, velmctl_frame &frame) const;

  private:
    int socket_ = -1;
};

/// None when the packet's length is not the one that its header says.
[[nodiscard]] std::optional<velmctl_frame>
velmctl_frame_parse(std::span<const std::uint8_t> packet);

/// None when the payload is no report.
[[nodiscard]] std::optional<velm_location_report> velmctl_report_parse(const velmctl_frame &frame);
