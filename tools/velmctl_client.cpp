#include "velmctl_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t header_size = sizeof(velm_frame_header);

// Longer than any frame of the protocol; with one byte more, so that a longer packet shows.
constexpr std::size_t packet_limit = header_size + 65535 + 1;

int milliseconds_left(velmctl_deadline deadline)
{
    if (!deadline.has_value()) {
        return -1;
    }
    const auto left = std::chrono::ceil<milliseconds>(*deadline - steady_clock::now()).count();
    using limits = std::numeric_limits<int>;
    return static_cast<int>(std::clamp<long long>(left, 0, limits::max()));
}

/// Positive when something lies there, 0 when the time is up, -1 on an error.
int wait_readable(int socket, velmctl_deadline deadline)
{
    while (true) {
        pollfd readable{socket, POLLIN, 0};
        const int left = milliseconds_left(deadline);
        if (left == 0) {
            return 0; // also when something lies there: a flood does not outlast the deadline
        }
        const int count = poll(&readable, 1, left);
        if (count > 0 || (count == 0 && left < std::numeric_limits<int>::max())) {
            return count;
        }
        if (count < 0 && errno != EINTR) {
            return -1;
        }
    }
}

velmctl_received report_failure(const char *what)
{
    std::fprintf(stderr, "velmctl: %s: %s\n", what, std::strerror(errno));
    return velmctl_received::failed;
}

} // namespace

velmctl_client::~velmctl_client()
{
    if (socket_ >= 0) {
        close(socket_);
    }
}

bool velmctl_client::connect(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        std::fputs("velmctl: a socket path has 1 to 107 characters\n", stderr);
        return false;
    }
    path.copy(address.sun_path, path.size());
    socket_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (socket_ < 0 ||
        ::connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        report_failure(path.c_str());
        return false;
    }
    return true;
}

bool velmctl_client::send_request(std::uint32_t id, std::uint16_t timeout_s) const
{
    velm_frame_header header{};
    header.type = VELM_LOCATION_REQUEST;
    header.len = sizeof(velm_location_request);
    header.id = id;
    header.time = static_cast<std::uint32_t>(std::time(nullptr));
    velm_location_request request{};
    request.timeout = timeout_s;
    std::array<std::uint8_t, header_size + sizeof request> frame{};
    std::memcpy(frame.data(), &header, header_size);
    std::memcpy(frame.data() + header_size, &request, sizeof request);
    if (send(socket_, frame.data(), frame.size(), MSG_NOSIGNAL) < 0) {
        report_failure("cannot send the request");
        return false;
    }
    return true;
}

velmctl_received velmctl_client::receive(velmctl_deadline deadline, velmctl_frame &frame) const
{
    static std::array<std::uint8_t, packet_limit> buffer;
    while (true) {
        const int readable = wait_readable(socket_, deadline);
        if (readable <= 0) {
            return readable == 0 ? velmctl_received::timed_out : report_failure("poll");
        }
        const ssize_t size = recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (size < 0 && errno != EAGAIN && errno != EINTR) {
            return report_failure("cannot read from the daemon");
        }
        if (size == 0) {
            std::fputs("velmctl: the daemon closed the connection\n", stderr);
            return velmctl_received::failed;
        }
        if (size < 0) {
            continue;
        }
        auto parsed = velmctl_frame_parse(std::span{buffer}.first(static_cast<std::size_t>(size)));
        if (parsed.has_value()) {
            frame = std::move(*parsed);
            return velmctl_received::frame;
        }
        std::fprintf(stderr, "velmctl: a packet of %zd bytes is no frame\n", size);
    }
}

std::optional<velmctl_frame> velmctl_frame_parse(std::span<const std::uint8_t> packet)
{
    velmctl_frame frame{};
    if (packet.size() < header_size) {
        return std::nullopt;
    }
    std::memcpy(&frame.header, packet.data(), header_size);
    if (packet.size() != header_size + frame.header.len) {
        return std::nullopt;
    }
    frame.payload.assign(packet.begin() + header_size, packet.end());
    return frame;
}

std::optional<velm_location_report> velmctl_report_parse(const velmctl_frame &frame)
{
    velm_location_report report{};
    if (frame.payload.size() != sizeof report) {
        return std::nullopt;
    }
    std::memcpy(&report, frame.payload.data(), sizeof report);
    return report;
}
