#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string_view>

#include "handles/fd.h"
#include "load.h"
#include "ssdp_address.h"

namespace {

constexpr std::string_view reply_start = "HTTP/1.1 200 OK\r\n";
/// After so long without any reply, what is outstanding is lost and its places are free again.
constexpr int silence_ms = 500;

std::string search_text(const std::string &target)
{
    return "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\n"
           "MX: 1\r\nST: " +
           target + "\r\n\r\n";
}

struct ssdp_run {
    const load_options &options;
    sockaddr_in server;
    std::string search;
    unique_fd socket;
    load_clock::time_point start = load_clock::now();
    load_clock::time_point sent_last{};
    load_result result{};
    std::uint64_t outstanding = 0;
    std::string a_reply{};

    [[nodiscard]] bool wants_more() const
    {
        return result.sent < options.count && load_seconds_since(start) < options.seconds;
    }
    bool send_one()
    {
        const ssize_t sent = sendto(socket.get(), search.data(), search.size(), 0,
                                    reinterpret_cast<const sockaddr *>(&server), sizeof server);
        if (sent != static_cast<ssize_t>(search.size())) {
            return false;
        }
        ++result.sent;
        ++outstanding;
        sent_last = load_clock::now();
        return true;
    }
    bool fill()
    {
        while (outstanding < options.outstanding && wants_more()) {
            if (!send_one()) {
                return false;
            }
        }
        return true;
    }
    void take_replies()
    {
        std::array<char, 2048> buffer;
        for (;;) {
            const ssize_t length = recv(socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (length < 0) {
                return;
            }
            const std::string_view reply{buffer.data(), static_cast<std::size_t>(length)};
            if (!reply.starts_with(reply_start)) {
                ++result.wrong;
                continue;
            }
            ++result.answered;
            if (options.outstanding == 1) { // else nobody knows which search is answered
                result.latencies_us.push_back(
                    static_cast<float>(load_seconds_since(sent_last) * 1e6));
            }
            outstanding -= outstanding > 0 ? 1 : 0;
            if (a_reply.empty()) {
                a_reply = reply;
            }
        }
    }
    /// False when nothing came in time.
    [[nodiscard]] bool wait() const
    {
        pollfd readable{socket.get(), POLLIN, 0};
        return poll(&readable, 1, silence_ms) > 0;
    }
};

bool run(ssdp_run &load)
{
    double last_reply = 0;
    while (load.fill() && load.outstanding > 0) {
        if (!load.wait()) {
            load.outstanding = 0;
            continue;
        }
        load.take_replies();
        last_reply = load_seconds_since(load.start);
    }
    load.result.seconds = last_reply;
    return load.outstanding == 0;
}

} // namespace

int ssdp_load_run(const load_options &options)
{
    const auto server = ssdp_address_parse(options.address);
    if (!server.has_value()) {
        errno = EINVAL;
        return load_failure(options.address);
    }
    ssdp_run load{options, *server, search_text(options.target),
                  unique_fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)}};
    load.result.name = "ssdp";
    const auto cpu_before = load_cpu_us(options.pid);
    if (!load.socket || !run(load)) {
        return load_failure("cannot send to " + options.address);
    }
    const auto cpu_after = load_cpu_us(options.pid);
    if (cpu_before.has_value() && cpu_after.has_value()) {
        load.result.cpu_us = *cpu_after - *cpu_before;
    }
    if (!options.reply_path.empty()) {
        std::ofstream{options.reply_path, std::ios::binary} << load.a_reply;
    }
    load_result_print(std::move(load.result));
    return 0;
}
