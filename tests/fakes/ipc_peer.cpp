#include "fakes/ipc_peer.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "fakes/emulated.h"

unique_fd ipc_connect(const std::string &path)
{
    unique_fd client{socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (connect(client.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        client.reset();
    }
    return client;
}

bool ipc_send(const unique_fd &socket, const ipc_bytes &packet)
{
    // An emulator refuses a null pointer also where there is nothing to send.
    const void *const data = packet.empty() ? "" : static_cast<const void *>(packet.data());
    const ssize_t sent = send(socket.get(), data, packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent == static_cast<ssize_t>(packet.size());
}

std::optional<ipc_bytes> ipc_receive(const unique_fd &socket)
{
    static std::array<std::uint8_t, 65536> buffer;
    const ssize_t size = recv(socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size < 0) {
        return std::nullopt;
    }
    return ipc_bytes(buffer.begin(), buffer.begin() + size);
}

ipc_bytes ipc_frame(std::uint16_t type, std::uint32_t id, const ipc_bytes &payload,
                    std::uint32_t status)
{
    const velm_frame_header header{type, static_cast<std::uint16_t>(payload.size()), id, 0, status};
    ipc_bytes frame(sizeof header + payload.size());
    std::memcpy(frame.data(), &header, sizeof header);
    std::copy(payload.begin(), payload.end(), frame.begin() + sizeof header);
    return frame;
}

ipc_bytes ipc_request(std::uint32_t id, std::uint16_t timeout)
{
    ipc_bytes payload(sizeof(velm_location_request));
    std::memcpy(payload.data(), &timeout, sizeof timeout);
    return ipc_frame(VELM_LOCATION_REQUEST, id, payload);
}

velm_frame_header ipc_header(const ipc_bytes &packet)
{
    velm_frame_header header{};
    if (packet.size() >= sizeof header) {
        std::memcpy(&header, packet.data(), sizeof header);
    }
    return header;
}

ipc_bytes ipc_payload(const ipc_bytes &packet)
{
    return packet.size() < sizeof(velm_frame_header)
               ? ipc_bytes{}
               : ipc_bytes(packet.begin() + sizeof(velm_frame_header), packet.end());
}

bool ipc_turn_until(event_base *base, const std::function<bool()> &condition,
                    std::chrono::seconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit * (is_emulated() ? 5 : 1);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
    }
    return true;
}

void ipc_turn(event_base *base, int turns)
{
    for (int turn = 0; turn < turns; ++turn) {
        event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
    }
}
