#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "handles/fd.h"
#include "load.h"
#include "ssdp_address.h"

namespace {

constexpr char default_reply[] = "HTTP/1.1 200 OK\r\nDATE: 2026-01-01.00:00:00\r\n"
                                 "LOCATION: https://192.168.100.100:8443/info\r\nSERVER: VELMD\r\n"
                                 "ST: urn:schemas-upnp-org:device:velmd:1\r\n"
                                 "USN: uuid:5c085b95-b4a7-45fa-b6f3-001122334455::"
                                 "urn:schemas-upnp-org:device:velmd:1\r\n\r\n";

std::string reply_read(const std::string &path)
{
    if (path.empty()) {
        return default_reply;
    }
    std::ifstream file{path, std::ios::binary};
    return {std::istreambuf_iterator<char>{file}, {}};
}

bool listen_on(int socket, sockaddr_in &address)
{
    const timeval a_second{1, 0}; // so that the time limit is looked at
    socklen_t length = sizeof address;
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    return setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &a_second, sizeof a_second) == 0 &&
           bind(socket, generic, length) == 0 && getsockname(socket, generic, &length) == 0;
}

} // namespace

/// The loop that any SSDP server comes down to.
int ssdp_peer_run(const load_options &options)
{
    auto address = ssdp_address_parse(options.address);
    const std::string reply = reply_read(options.reply_path);
    const unique_fd socket{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    if (!address.has_value() || reply.empty() || !socket || !listen_on(socket.get(), *address)) {
        return load_failure("cannot answer on " + options.address);
    }
    std::printf("{\"listening\": \"%s:%u\"}\n", inet_ntoa(address->sin_addr),
                unsigned{ntohs(address->sin_port)});
    std::fflush(stdout);
    load_result result;
    result.name = "ssdp-peer";
    const auto start = load_clock::now();
    std::array<char, 65536> buffer;
    // The clock is looked at now and then only, as the daemon's loop does not for each datagram.
    while (result.answered < options.count &&
           (result.sent % 1024 != 0 || load_seconds_since(start) < options.seconds)) {
        sockaddr_in client{};
        socklen_t length = sizeof client;
        auto *generic = reinterpret_cast<sockaddr *>(&client);
        if (recvfrom(socket.get(), buffer.data(), buffer.size(), 0, generic, &length) < 0) {
            if (load_seconds_since(start) >= options.seconds) {
                break;
            }
            continue;
        }
        ++result.sent;
        if (sendto(socket.get(), reply.data(), reply.size(), MSG_DONTWAIT, generic, length) > 0) {
            ++result.answered;
        }
    }
    result.seconds = load_seconds_since(start);
    load_result_print(std::move(result));
    return 0;
}
