#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <string_view>

#include "handles/fd.h"
#include "ssdp/message.h"
#include "tools/doctor/checks.h"
#include "tools/doctor/search.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds limit{3000};
constexpr milliseconds between_searches{1000}; // a datagram may be lost
constexpr char group[] = "239.255.255.250";

std::string search_text(std::uint16_t port)
{
    return "M-SEARCH * HTTP/1.1\r\nHOST: " + std::string{group} + ':' + std::to_string(port) +
           "\r\nMAN: \"ssdp:discover\"\r\nMX: 1\r\nST: " + velm_ssdp_device_type + "\r\n\r\n";
}

/// A socket that sends to the group by the interface of the LAN; none when that cannot be had.
unique_fd open_socket(const std::string &lan_address)
{
    unique_fd socket{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    sockaddr_in local{};
    local.sin_family = AF_INET;
    const auto *const name = reinterpret_cast<const sockaddr *>(&local);
    const bool is_open = socket && inet_pton(AF_INET, lan_address.c_str(), &local.sin_addr) == 1 &&
                         setsockopt(socket.get(), IPPROTO_IP, IP_MULTICAST_IF, &local.sin_addr,
                                    sizeof local.sin_addr) == 0 &&
                         bind(socket.get(), name, sizeof local) == 0;
    return is_open ? std::move(socket) : unique_fd{};
}

bool send_search(int socket, std::uint16_t port)
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    inet_pton(AF_INET, group, &to.sin_addr);
    const std::string text = search_text(port);
    return sendto(socket, text.data(), text.size(), 0, reinterpret_cast<const sockaddr *>(&to),
                  sizeof to) > 0;
}

/// True when an answer of ours comes within the time.
bool receive_answer(int socket, const std::string &location, milliseconds time)
{
    const auto end = steady_clock::now() + time;
    while (true) {
        const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now()).count();
        pollfd wanted{socket, POLLIN, 0};
        if (left <= 0 || poll(&wanted, 1, static_cast<int>(left)) <= 0) {
            return false;
        }
        std::array<char, 2048> text{};
        const ssize_t length = recv(socket, text.data(), text.size(), 0);
        const std::string_view answer{text.data(),
                                      length > 0 ? static_cast<std::size_t>(length) : 0};
        if (answer.starts_with("HTTP/1.1 200") && answer.find(location) != std::string_view::npos) {
            return true;
        }
    }
}

bool is_found(int socket, const velm_config &config, const std::string &lan_address)
{
    const std::string location = lan_address + ':' + std::to_string(config.http_server_port) + '/';
    for (milliseconds spent{0}; spent < limit; spent += between_searches) {
        if (send_search(socket, config.ssdp_server_port) &&
            receive_answer(socket, location, between_searches)) {
            return true;
        }
    }
    return false;
}

} // namespace

bool doctor_search_finds(const velm_config &config, const std::string &lan_address)
{
    const unique_fd socket = open_socket(lan_address);
    return socket && is_found(socket.get(), config, lan_address);
}

void doctor_check_search(const doctor_subject &subject, doctor_report &report)
{
    const velm_config &config = subject.config;
    if (!doctor_is_running(subject) || config.ssdp_server_port == 0 ||
        subject.lan_address.empty() || subject.is_config_shut) {
        return;
    }
    if (doctor_search_finds(config, subject.lan_address)) {
        report.ok("daemon: it answers a search on the LAN");
    } else {
        report.fail("daemon: it does not answer a search on the LAN",
                    "Look at a firewall for UDP port " + std::to_string(config.ssdp_server_port) +
                        ", and at the multicast settings of the bridge.");
    }
}
