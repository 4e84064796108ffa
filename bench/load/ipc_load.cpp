#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <velm/location_policy.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "handles/fd.h"
#include "load.h"

namespace {

constexpr std::size_t request_size = sizeof(velm_frame_header) + sizeof(velm_location_request);
constexpr std::size_t answer_size = sizeof(velm_frame_header) + sizeof(velm_location_report);

bool connect_to(int socket, const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const timeval limit{5, 0};
    return setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0 &&
           connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

std::array<char, request_size> request_make(std::uint32_t id)
{
    velm_frame_header header{};
    header.type = VELM_LOCATION_REQUEST;
    header.len = sizeof(velm_location_request);
    header.id = id;
    header.time = static_cast<std::uint32_t>(std::time(nullptr));
    velm_location_request request{};
    request.timeout = 60;
    std::array<char, request_size> packet;
    std::memcpy(packet.data(), &header, sizeof header);
    std::memcpy(packet.data() + sizeof header, &request, sizeof request);
    return packet;
}

/// The answer to this very request: there is no phone to ask.
bool is_answer(const char *packet, std::size_t length, std::uint32_t id)
{
    velm_frame_header header;
    if (length != answer_size) {
        return false;
    }
    std::memcpy(&header, packet, sizeof header);
    return header.type == VELM_LOCATION_REQUEST && header.len == sizeof(velm_location_report) &&
           header.id == id && header.status == VELM_STATUS_NO_PAIRED_DEVICES;
}

/// False when the connection broke or nothing came.
bool round_trip(int socket, std::uint32_t id, load_result &result)
{
    const auto packet = request_make(id);
    std::array<char, 4096> answer;
    const auto start = load_clock::now();
    if (send(socket, packet.data(), packet.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(packet.size())) {
        return false;
    }
    ++result.sent;
    const ssize_t length = recv(socket, answer.data(), answer.size(), 0);
    if (length <= 0) {
        return false;
    }
    if (is_answer(answer.data(), static_cast<std::size_t>(length), id)) {
        ++result.answered;
        result.latencies_us.push_back(static_cast<float>(load_seconds_since(start) * 1e6));
    } else {
        ++result.wrong;
    }
    return true;
}

} // namespace

int ipc_load_run(const load_options &options)
{
    const unique_fd socket{::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)};
    if (!socket || !connect_to(socket.get(), options.socket_path)) {
        return load_failure("cannot connect to " + options.socket_path);
    }
    load_result result;
    result.name = "ipc";
    const auto cpu_before = load_cpu_us(options.pid);
    const auto start = load_clock::now();
    for (std::uint32_t id = 1; id <= options.count && load_seconds_since(start) < options.seconds;
         ++id) {
        if (!round_trip(socket.get(), id, result)) {
            return load_failure("no answer from " + options.socket_path);
        }
    }
    result.seconds = load_seconds_since(start);
    const auto cpu_after = load_cpu_us(options.pid);
    if (cpu_before.has_value() && cpu_after.has_value()) {
        result.cpu_us = *cpu_after - *cpu_before;
    }
    load_result_print(std::move(result));
    return 0;
}
