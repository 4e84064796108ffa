#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <velm/location_policy.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "handles/fd.h"
#include "load.h"

namespace {

constexpr std::size_t answer_size = sizeof(velm_frame_header) + sizeof(velm_location_report);

bool listen_on(int socket, const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        errno = EINVAL;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
           listen(socket, 1) == 0;
}

bool watch(int epoll, int fd)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

struct echo_server {
    unique_fd epoll{epoll_create1(EPOLL_CLOEXEC)};
    unique_fd listener;
    unique_fd client; // one
    load_result result{};
    std::array<char, answer_size> answer{};

    void accept_client()
    {
        client.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (client) {
            watch(epoll.get(), client.get());
        }
    }
    /// What must be in any answer: which request it answers, and that no phone is paired.
    void answer_one()
    {
        std::array<char, 4096> packet;
        const ssize_t length = recv(client.get(), packet.data(), packet.size(), 0);
        velm_frame_header header;
        if (length < static_cast<ssize_t>(sizeof header)) {
            client.reset();
            return;
        }
        ++result.sent;
        std::memcpy(&header, packet.data(), sizeof header);
        header.len = sizeof(velm_location_report);
        header.status = VELM_STATUS_NO_PAIRED_DEVICES;
        std::memcpy(answer.data(), &header, sizeof header);
        if (send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL) ==
            static_cast<ssize_t>(answer.size())) {
            ++result.answered;
        }
    }
};

} // namespace

/// The loop that any server on a packet socket comes down to: wait, receive, send.
int ipc_peer_run(const load_options &options)
{
    echo_server server;
    server.listener.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!server.epoll || !server.listener ||
        !listen_on(server.listener.get(), options.socket_path) ||
        !watch(server.epoll.get(), server.listener.get())) {
        return load_failure("cannot listen on " + options.socket_path);
    }
    std::printf("{\"listening\": \"%s\"}\n", options.socket_path.c_str());
    std::fflush(stdout);
    server.result.name = "ipc-peer";
    const auto start = load_clock::now();
    while (server.result.answered < options.count &&
           (server.result.sent % 1024 != 0 || load_seconds_since(start) < options.seconds)) {
        epoll_event event{};
        const int ready = epoll_wait(server.epoll.get(), &event, 1, 1000);
        if (ready == 0 && load_seconds_since(start) >= options.seconds) {
            break;
        }
        if (ready > 0 && event.data.fd == server.listener.get()) {
            server.accept_client();
        } else if (ready > 0) {
            server.answer_one();
        }
    }
    unlink(options.socket_path.c_str());
    server.result.seconds = load_seconds_since(start);
    load_result_print(std::move(server.result));
    return 0;
}
