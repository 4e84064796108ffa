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

/// `closed`: the daemon ended the connection, as it also does to reload. `turned_away`: it did so
/// before it read what we sent. `failed`: the reason is in errno.
enum class velmctl_result { done, timed_out, closed, turned_away, failed };

/// Connected until it is connected anew or dies.
class velmctl_client {
  public:
    velmctl_client() = default;
    velmctl_client(const velmctl_client &) = delete;
    velmctl_client &operator=(const velmctl_client &) = delete;
    ~velmctl_client();

    /// Waits while the daemon has no room for one more. A request is sent by the same deadline.
    [[nodiscard]] velmctl_result connect(const std::string &path, velmctl_deadline deadline);
    [[nodiscard]] velmctl_result send_request(std::uint32_t id, std::uint16_t timeout_s) const;
    /// The next frame. Packets that are no frame are reported and passed over. At the deadline it looks
    /// once more at what is there: a flood does not outlast it.
    [[nodiscard]] velmctl_result receive(velmctl_deadline deadline, velmctl_frame &frame);

  private:
    void close_socket();
    int wait_readable(velmctl_deadline deadline);

    int socket_ = -1;
    bool last_look_taken_ = false;
};

/// None when the packet's length is not the one that its header says.
[[nodiscard]] std::optional<velmctl_frame>
velmctl_frame_parse(std::span<const std::uint8_t> packet);

/// None when the payload is no report.
[[nodiscard]] std::optional<velm_location_report> velmctl_report_parse(const velmctl_frame &frame);
