#include "velm_conn.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <memory>
#include <vector>

#include "handles/argument.h"
#include "handles/libevent.h"
#include "ipc/places.h"
#include "logger/fatal.h"

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::steady_clock;

// Plain events instead of a bufferevent: that joins what waits in its output buffer into one write,
// and on this kind of socket a write is a packet, so a client would see several frames as one.
struct velm_conn {
    unique_fd socket;
    event_ptr read_event;
    event_ptr write_event; // pending while packets wait
    event_ptr rest;        // made when first needed; pending while nothing is read
    std::deque<std::vector<std::uint8_t>> waiting;
    velm_ipc_cmd_input input;
    velm_ipc *server = nullptr;
    velm_conn_parser parser = nullptr;
    velm_conn_frame_handler handler = nullptr;
    velm_conn_closed_handler closed_handler = nullptr;
    velm_conn_drained_handler drained_handler = nullptr;
    steady_clock::duration waited{}; // of its patience; what waits now has waited since wait_began
    steady_clock::time_point wait_began;
    bool closed = false;
};

namespace {

constexpr char log_category[] = "IPC_CONN";
constexpr steady_clock::duration patience = std::chrono::seconds{15};
constexpr steady_clock::duration earned_by_packet = std::chrono::milliseconds{50};
constexpr std::size_t read_chunk = 1024;
constexpr std::size_t short_packet = 4096; // 26 requests
// All the clients that there may be get half of the loop's time together.
constexpr int rest_factor = 2 * static_cast<int>(velm_ipc_connection_limit) - 1;
constexpr microseconds longest_rest{2'000'000}; // though the machine itself may have slept

// Twice the usual net.core.wmem_max is what a client can set as its send buffer, and no packet is
// longer than that.
constexpr std::size_t longest_packet = std::size_t{2} * 212992;

struct module_state {
    // Never touched beyond what comes, and given back after a long packet, so it costs address space
    // only.
    std::array<std::uint8_t, longest_packet> read_buffer;
};
module_state state;

timeval timeval_of(steady_clock::duration length)
{
    const auto whole = duration_cast<microseconds>(length).count();
    return {static_cast<std::time_t>(whole / 1'000'000),
            static_cast<suseconds_t>(whole % 1'000'000)};
}

/// The pages that a long packet touched would stay with the process for ever. Those that it shares
/// with other data at either end stay.
void read_buffer_give_back()
{
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<std::uintptr_t>(state.read_buffer.data());
    const std::uintptr_t first = (begin + page - 1) / page * page;
    const std::uintptr_t last = (begin + state.read_buffer.size()) / page * page;
    if (first < last) {
        madvise(state.read_buffer.data() + (first - begin), last - first, MADV_DONTNEED);
    }
}

void connection_close(velm_conn *conn)
{
    conn->closed = true;
    conn->read_event.reset();
    conn->write_event.reset();
    conn->rest.reset();
    conn->waiting.clear();
    conn->socket.reset();
    if (conn->closed_handler != nullptr) {
        conn->closed_handler(conn);
    }
}

/// A packet without bytes reads like the end of the stream. It is the end only when the peer has
/// shut down and nothing more lies in the queue. A signal may interrupt even a poll that does not
/// wait: the end is read again in the next turn.
bool is_end_of_stream(int socket)
{
    pollfd peer{socket, POLLRDHUP, 0};
    if (poll(&peer, 1, 0) <= 0) {
        return false;
    }
    int unread = 0;
    return ioctl(socket, FIONREAD, &unread) != 0 || unread == 0;
}

void packet_handle(velm_conn *conn, std::span<const std::uint8_t> packet)
{
    while (!packet.empty() && !conn->closed) {
        const std::size_t size = std::min(packet.size(), read_chunk);
        conn->parser(conn, conn->input, packet.first(size), conn->handler);
        packet = packet.subspan(size);
    }
}

void read_failed(velm_conn *conn, int error)
{
    if (error == EAGAIN || error == EINTR) {
        return;
    }
    LOG_ERROR("Read error");
    LOG_ERROR("Connection error: %s", std::strerror(error));
    connection_close(conn);
}

void rest_over(evutil_socket_t, short, void *context) noexcept
{
    auto *const conn = static_cast<velm_conn *>(context);
    const int rc = event_add(conn->read_event.get(), nullptr);
    REQUIRE_CALL(rc == 0, "event_add(read_event, NULL)", rc);
}

void rest_for(velm_conn *conn, microseconds length)
{
    if (conn->rest == nullptr) {
        conn->rest.reset(evtimer_new(event_get_base(conn->read_event.get()), rest_over, conn));
        REQUIRE_MEMORY(conn->rest, "rest");
    }
    const timeval time = timeval_of(length);
    event_del(conn->read_event.get());
    const int rc = evtimer_add(conn->rest.get(), &time);
    REQUIRE_CALL(rc == 0, "evtimer_add(rest, &time)", rc);
}

/// A long packet can hold thousands of requests: who has sent one is not read for a time that is a
/// multiple of what it took.
void long_packet_handle(velm_conn *conn, std::span<const std::uint8_t> packet)
{
    const auto begin = steady_clock::now();
    packet_handle(conn, packet);
    read_buffer_give_back();
    if (!conn->closed) {
        const auto spent = duration_cast<microseconds>(steady_clock::now() - begin);
        rest_for(conn, std::min(spent * rest_factor, longest_rest));
    }
}

/// One packet a turn, so that a client that floods does not hold up the others.
void read_cb(evutil_socket_t socket, short, void *context) noexcept
{
    auto *const conn = static_cast<velm_conn *>(context);
    // With MSG_TRUNC the result is the packet's whole length, even when that is not read whole.
    const ssize_t size =
        recv(socket, state.read_buffer.data(), state.read_buffer.size(), MSG_TRUNC | MSG_DONTWAIT);
    if (size < 0) {
        read_failed(conn, errno);
        return;
    }
    if (size == 0) {
        if (is_end_of_stream(socket)) {
            LOG_TRACE("Connection closed");
            connection_close(conn);
        }
        return;
    }
    if (static_cast<std::size_t>(size) > state.read_buffer.size()) {
        LOG_ERROR("Unexpected error in read cb");
        connection_close(conn);
        return;
    }
    const auto packet = std::span{state.read_buffer}.first(static_cast<std::size_t>(size));
    if (packet.size() <= short_packet) {
        packet_handle(conn, packet);
    } else {
        long_packet_handle(conn, packet);
    }
}

enum class sent { whole, later, failed };

sent packet_send(velm_conn *conn, std::span<const std::uint8_t> packet)
{
    const ssize_t size =
        send(conn->socket.get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (size >= 0) {
        return sent::whole; // a packet goes whole or not at all
    }
    const int error = errno;
    if (error == EAGAIN || error == EINTR) {
        return sent::later;
    }
    LOG_ERROR("Write error");
    LOG_ERROR("Connection error: %s", std::strerror(error));
    connection_close(conn);
    return sent::failed;
}

/// Waits for the peer for as long as it has patience left. With none it is the time-out's turn.
bool write_wait(velm_conn *conn)
{
    const auto waited = conn->waited + (steady_clock::now() - conn->wait_began);
    const timeval left = timeval_of(std::max(patience - waited, steady_clock::duration::zero()));
    if (event_add(conn->write_event.get(), &left) == 0) {
        return true;
    }
    LOG_ERROR("Cannot set timeouts");
    connection_close(conn);
    return false;
}

void write_cb(evutil_socket_t, short events, void *context) noexcept
{
    auto *const conn = static_cast<velm_conn *>(context);
    if ((events & EV_WRITE) == 0) {
        LOG_ERROR("Write timeout");
        connection_close(conn);
        return;
    }
    while (!conn->waiting.empty()) {
        const sent result = packet_send(conn, conn->waiting.front());
        if (result == sent::failed) {
            return;
        }
        if (result == sent::later) {
            write_wait(conn);
            return;
        }
        conn->waiting.pop_front();
    }
    conn->waited += steady_clock::now() - conn->wait_began;
    if (conn->drained_handler != nullptr) {
        conn->drained_handler(conn);
    }
}

/// A peer that reads steadily is waited for, however slow it is beside others; one that reads a packet
/// now and then is not.
void patience_earn(velm_conn *conn)
{
    conn->waited = std::max(conn->waited - earned_by_packet, steady_clock::duration::zero());
}

/// A peer that has read everything has all its patience again. Asked of one only that has waited.
void patience_restore(velm_conn *conn)
{
    int unread = 0;
    if (ioctl(conn->socket.get(), SIOCOUTQ, &unread) == 0 && unread == 0) {
        conn->waited = {};
    }
}

bool packet_queue(velm_conn *conn, std::span<const std::uint8_t> packet)
{
    if (conn->waiting.size() == velm_conn_queue_limit) {
        LOG_ERROR("Write error");
        LOG_ERROR("Connection error: %s", "peer does not read");
        connection_close(conn);
        return false;
    }
    conn->waiting.emplace_back(packet.begin(), packet.end());
    if (conn->waiting.size() > 1) {
        return true;
    }
    conn->wait_began = steady_clock::now();
    return write_wait(conn);
}

} // namespace

void velm_conn_destroy(velm_conn *conn) noexcept
{
    if (conn == nullptr) {
        LOG_TRACE("Conn already deleted");
        return;
    }
    LOG_TRACE("Conn delete");
    adopt<velm_conn>(conn);
}

velm_conn_ptr velm_conn_create(event_base *base, unique_fd socket, velm_ipc *server,
                               velm_conn_parser parser, velm_conn_frame_handler handler)
{
    velm_conn_ptr conn{release_new<velm_conn>()};
    conn->socket = std::move(socket);
    conn->server = server;
    conn->parser = parser;
    conn->handler = handler;
    const int fd = conn->socket.get();
    conn->read_event.reset(event_new(base, fd, EV_READ | EV_PERSIST, read_cb, conn.get()));
    conn->write_event.reset(event_new(base, fd, EV_WRITE, write_cb, conn.get()));
    if (conn->read_event == nullptr || conn->write_event == nullptr ||
        event_add(conn->read_event.get(), nullptr) != 0) {
        LOG_ERROR("Cannot enable event read/write");
        return nullptr;
    }
    return conn;
}

void velm_conn_set_closed_handler(velm_conn *conn, velm_conn_closed_handler handler)
{
    conn->closed_handler = handler;
}

void velm_conn_set_drained_handler(velm_conn *conn, velm_conn_drained_handler handler)
{
    conn->drained_handler = handler;
}

void velm_conn_close(velm_conn *conn)
{
    if (!conn->closed) {
        LOG_TRACE("Connection closed");
        connection_close(conn);
    }
}

velm_ipc *velm_conn_server(const velm_conn *conn)
{
    return conn->server;
}

bool velm_conn_is_closed(const velm_conn *conn)
{
    return conn->closed;
}

bool velm_conn_is_waiting(const velm_conn *conn)
{
    return !conn->waiting.empty();
}

bool velm_conn_write(velm_conn *conn, std::span<const std::uint8_t> packet)
{
    if (conn->closed) {
        return false;
    }
    if (!conn->waiting.empty()) {
        return packet_queue(conn, packet);
    }
    if (conn->waited > steady_clock::duration::zero()) {
        patience_restore(conn);
    }
    switch (packet_send(conn, packet)) {
    case sent::whole:
        patience_earn(conn);
        return true;
    case sent::later:
        return packet_queue(conn, packet);
    case sent::failed:
        break;
    }
    return false;
}
