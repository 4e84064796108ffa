#include "tools/locations/velmctl_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <utility>

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

/// A blocking connect waits for as long as the daemon does not accept, whatever poll says: only the
/// socket's own time-out bounds it. It bounds a send as well.
bool limit_waiting(int socket, velmctl_deadline deadline)
{
    if (!deadline.has_value()) {
        return true;
    }
    // Zero would be no limit at all.
    const auto left =
        std::max(std::chrono::ceil<milliseconds>(*deadline - steady_clock::now()), milliseconds{1});
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timeval limit{
        static_cast<std::time_t>(seconds.count()),
        static_cast<suseconds_t>(std::chrono::microseconds{left - seconds}.count())};
    return setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

/// What errno says of a call that did not succeed.
velmctl_result result_of_errno()
{
    switch (errno) {
    case EAGAIN:
        return velmctl_result::timed_out;
    case EPIPE:
    case ECONNRESET:
        return velmctl_result::turned_away;
    default:
        return velmctl_result::failed;
    }
}

} // namespace

velmctl_client::~velmctl_client()
{
    close_socket();
}

void velmctl_client::close_socket()
{
    if (socket_ >= 0) {
        close(socket_);
        socket_ = -1;
    }
}

/// Positive when something lies there, 0 when the time is up, -1 on an error.
int velmctl_client::wait_readable(velmctl_deadline deadline)
{
    while (true) {
        pollfd readable{socket_, POLLIN, 0};
        const int left = milliseconds_left(deadline);
        if (left == 0 && std::exchange(last_look_taken_, true)) {
            return 0;
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

velmctl_result velmctl_client::connect(const std::string &path, velmctl_deadline deadline)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        errno = path.empty() ? ENOENT : ENAMETOOLONG;
        return velmctl_result::failed;
    }
    path.copy(address.sun_path, path.size());
    close_socket();
    socket_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (socket_ < 0 || !limit_waiting(socket_, deadline)) {
        return velmctl_result::failed;
    }
    if (::connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        return result_of_errno();
    }
    return velmctl_result::done;
}

velmctl_result velmctl_client::send_request(std::uint32_t id, std::uint16_t timeout_s) const
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
        return result_of_errno();
    }
    return velmctl_result::done;
}

velmctl_result velmctl_client::receive(velmctl_deadline deadline, velmctl_frame &frame)
{
    static std::array<std::uint8_t, packet_limit> buffer;
    while (true) {
        const int readable = wait_readable(deadline);
        if (readable <= 0) {
            return readable == 0 ? velmctl_result::timed_out : velmctl_result::failed;
        }
        const ssize_t size = recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (size < 0 && errno != EAGAIN && errno != EINTR) {
            return result_of_errno();
        }
        if (size == 0) {
            return velmctl_result::closed;
        }
        if (size < 0) {
            continue;
        }
        auto parsed = velmctl_frame_parse(std::span{buffer}.first(static_cast<std::size_t>(size)));
        if (parsed.has_value()) {
            frame = std::move(*parsed);
            return velmctl_result::done;
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
