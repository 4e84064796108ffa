#include "velm_ssdp_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "cutils/interface_addresses.h"
#include "handles/fd.h"
#include "handles/libevent.h"
#include "handles/malloc.h"
#include "lan/wait.h"
#include "logger/fatal.h"
#include "metrics/metrics.h"
#include "ssdp/message.h"
#include "velm_utils.h"

namespace {

constexpr char log_category[] = "velm_ssdp_server";
constexpr char SERVICE_UUID[] = "5c085b95-b4a7-45fa-b6f3-%02x%02x%02x%02x%02x%02x";
constexpr char group_address[] = "239.255.255.250";
constexpr std::size_t datagram_max = 65535;

// What one turn of the loop takes at most, so that a flood leaves turns to the phones: each datagram
// costs its length and a flat rate for the system calls. Some 50 searches, or one of the longest.
constexpr std::ptrdiff_t turn_budget = 64 * 1024;
constexpr std::ptrdiff_t datagram_flat_rate = 1024;

// To look for another datagram behind one that is alone is a system call for nothing. After so many turns
// with one each it is done in every eighth turn only, until two have come together. One that is missed is
// met in the next turn.
constexpr unsigned alone_in_a_row = 8;

// What a host of the LAN can cause as often as it likes is told once in this time, with a count.
constexpr std::time_t unsent_silence = 60;

/// Nothing is written into it before a datagram is: pages that no datagram fills stay untouched.
struct datagram_buffer : std::array<char, datagram_max + 1> {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init,modernize-use-equals-default): see above
    datagram_buffer() noexcept
    {
    }
};

/// The answer names the time in whole seconds, so it is made once a second at most.
struct prepared_reply {
    std::time_t time;
    std::size_t length;
    std::array<char, velm_ssdp_reply_size> text;
};

struct module_state {
    event_base *base = nullptr;
    const velm_config *config = nullptr;
    malloc_text service_uuid;
    // Made for the first datagram and kept; of its pages only those that datagrams reached are ever
    // resident.
    std::unique_ptr<datagram_buffer> buffer;
    std::optional<prepared_reply> reply;
    unsigned came_alone = 0;                // turns with one datagram, in a row
    std::optional<std::time_t> unsent_told; // the last line about answers that could not be sent
    unsigned unsent_since = 0;
    unique_fd socket;
    event_ptr watcher;
    unsigned lan_interface = 0; // the index of the one that has the LAN address; 0: none
    int member_of = 0;          // the index of the one on which the group is joined
    velm_lan_wait address_wait; // while no interface has the LAN address
};
module_state state;

/// The socket calls take the general form of every address.
const sockaddr *general(const sockaddr_in &address)
{
    return reinterpret_cast<const sockaddr *>(&address);
}

const prepared_reply &current_reply()
{
    const std::time_t now = std::time(nullptr);
    if (!state.reply || state.reply->time != now) {
        const std::string address = velm_config_lan_ip_address(state.config);
        prepared_reply &reply = state.reply.emplace();
        reply.time = now;
        reply.length = velm_ssdp_message_write_reply(
            reply.text,
            {now, address.c_str(), state.config->http_server_port, state.service_uuid.get()});
    }
    return *state.reply;
}

void tell_of_unsent_reply()
{
    const std::time_t now = std::time(nullptr);
    const bool is_silent =
        state.unsent_told && now >= *state.unsent_told && now - *state.unsent_told < unsent_silence;
    if (is_silent) {
        ++state.unsent_since;
        return;
    }
    LOG_WARN("failed to send response to M-SEARCH packet");
    if (state.unsent_since > 0) {
        LOG_WARN("%s - %u more have failed since this was said last", __func__, state.unsent_since);
    }
    state.unsent_told = now;
    state.unsent_since = 0;
}

void send_reply(int fd, const sockaddr_in &receiver)
{
    const prepared_reply &reply = current_reply();
    const ssize_t sent = sendto(fd, reply.text.data(), reply.length, MSG_DONTWAIT,
                                general(receiver), sizeof receiver);
    if (sent < 0 || static_cast<std::size_t>(sent) != reply.length) {
        tell_of_unsent_reply();
    } else {
        metrics_count(metric::search_answers);
    }
}

/// The interface on which a datagram came in; 0 when the kernel did not say.
unsigned interface_of(msghdr &message)
{
    const cmsghdr *const about = CMSG_FIRSTHDR(&message);
    if (about == nullptr || about->cmsg_level != IPPROTO_IP || about->cmsg_type != IP_PKTINFO) {
        return 0;
    }
    in_pktinfo info{};
    std::memcpy(&info, CMSG_DATA(about), sizeof info);
    return static_cast<unsigned>(info.ipi_ifindex);
}

/// Whoever searches from the uplink, or claims to, is nobody of the LAN.
bool is_from_lan(msghdr &message)
{
    return state.lan_interface != 0 && interface_of(message) == state.lan_interface;
}

/// The length of the datagram that was handled; nothing when none waits.
std::optional<std::size_t> handle_datagram(int fd, datagram_buffer &buffer)
{
    sockaddr_in sender; // filled by the kernel, like what follows
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in_pktinfo))> about;
    iovec text{buffer.data(), datagram_max};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &text;
    message.msg_iovlen = 1;
    message.msg_control = about.data();
    message.msg_controllen = about.size();
    const ssize_t received = recvmsg(fd, &message, MSG_DONTWAIT);
    if (received < 0) {
        if (errno != EAGAIN) {
            LOG_ERROR("%s - recvfrom failed: %s", __func__, std::strerror(errno));
        }
        return std::nullopt;
    }
    const auto length = static_cast<std::size_t>(received);
    buffer[length] = '\0';
    if (is_from_lan(message) && velm_ssdp_message_is_search(buffer.data())) {
        metrics_count(metric::searches);
        send_reply(fd, sender);
    }
    return length;
}

void watcher_callback(evutil_socket_t fd, short events, void * /*context*/) noexcept
{
    if ((events & EV_READ) == 0) {
        LOG_DEBUG("SSDP handler received status other that read: %d, ignoring", int{events});
        return;
    }
    if (state.buffer == nullptr) {
        const allocation_name naming{__func__, "buffer"};
        state.buffer = std::make_unique<datagram_buffer>();
    }
    std::ptrdiff_t budget = turn_budget;
    const bool looks_for_more =
        state.came_alone < alone_in_a_row || state.came_alone % alone_in_a_row == 0;
    unsigned handled = 0;
    while (budget > 0 && (handled == 0 || looks_for_more)) {
        const std::optional<std::size_t> length = handle_datagram(fd, *state.buffer);
        if (!length) {
            break;
        }
        ++handled;
        budget -= datagram_flat_rate + static_cast<std::ptrdiff_t>(*length);
    }
    state.came_alone = handled > 1 ? 0 : state.came_alone + 1;
}

bool prepare_uuid(const char *caller)
{
    velm_mac_address mac{};
    if (!velm_utils_parse_mac_address(state.config->mac_address, mac.data())) {
        LOG_ERROR("%s - cannot prepare uuid with %s", caller, state.config->mac_address);
        return false;
    }
    char *service_uuid = nullptr;
    const int rc =
        asprintf(&service_uuid, SERVICE_UUID, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    constexpr char call[] =
        "asprintf(&service_uuid, SERVICE_UUID, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5])";
    REQUIRE_CALL(rc >= 0, call, rc);
    state.service_uuid.reset(service_uuid);
    return true;
}

template <typename T>
bool set_option(int fd, int level, int option, const T &value)
{
    return setsockopt(fd, level, option, &value, sizeof value) == 0;
}

/// Each membership counts, also that of an interface that has gone.
void leave_group(int fd)
{
    ip_mreqn membership{};
    membership.imr_multiaddr.s_addr = inet_addr(group_address);
    membership.imr_ifindex = state.member_of;
    if (state.member_of != 0) {
        set_option(fd, IPPROTO_IP, IP_DROP_MEMBERSHIP, membership);
    }
    state.member_of = 0;
}

/// On the interface that has the LAN address. False, and errno, when it failed.
bool add_membership(int fd, ip_mreqn &membership)
{
    if (state.lan_interface == 0) {
        errno = ENODEV;
        return false;
    }
    if (!set_option(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership)) {
        return false;
    }
    state.member_of = membership.imr_ifindex;
    // Else the group would come from every interface on which any other program has joined it.
    set_option(fd, IPPROTO_IP, IP_MULTICAST_ALL, 0);
    return true;
}

/// Multicast goes by the LAN address. Answers take the interface too, so that none leaves the LAN for
/// a sender that was forged. False, and errno, when it failed.
bool send_on_lan(int fd, const ip_mreqn &membership)
{
    const std::uint32_t interface = htonl(state.lan_interface);
    set_option(fd, IPPROTO_IP, IP_UNICAST_IF, interface);
    return set_option(fd, IPPROTO_IP, IP_MULTICAST_IF, membership.imr_address);
}

void join_again(evutil_socket_t, short, void *) noexcept;

/// Membership and multicast of the LAN. What fails is logged once, and tried again where the address
/// is all that is missing.
void join_group(const char *caller, int fd)
{
    const std::string address = velm_config_lan_ip_address(state.config);
    ip_mreqn membership{};
    membership.imr_multiaddr.s_addr = inet_addr(group_address);
    const bool is_address = inet_pton(AF_INET, address.c_str(), &membership.imr_address) == 1;
    if (!is_address) {
        membership.imr_address.s_addr = INADDR_NONE; // nobody's address, so that nothing succeeds
    }
    state.lan_interface = interface_with_address(address.c_str(), state.config->lan_name);
    membership.imr_ifindex = static_cast<int>(state.lan_interface);
    LOG_DEBUG("%s - adding to multicast group %s", caller, group_address);
    LOG_DEBUG("%s - on interface %s", caller, address.c_str());
    const bool is_told = state.address_wait.is_waiting();
    const int join_error = add_membership(fd, membership) ? 0 : errno;
    if (join_error != 0 && !is_told) {
        LOG_ERROR("%s - cannot join multicast group: %s", caller, std::strerror(join_error));
    }
    const int send_error = send_on_lan(fd, membership) ? 0 : errno;
    if (send_error != 0 && !is_told) {
        LOG_ERROR("%s - cannot set multicast interface: %s", caller, std::strerror(send_error));
    }
    const bool is_early = join_error == ENODEV || send_error == EADDRNOTAVAIL;
    if (is_address && is_early) {
        state.address_wait.again(state.base, join_again);
    } else {
        state.address_wait.end();
    }
}

void join_again(evutil_socket_t, short, void *) noexcept
{
    leave_group(state.socket.get());
    join_group(__func__, state.socket.get());
}

unique_fd prepare_socket()
{
    unique_fd socket{::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    if (!socket) {
        LOG_ERROR("%s: failed to create socket: %s", __func__, std::strerror(errno));
        return socket;
    }
    if (!set_option(socket.get(), SOL_SOCKET, SO_REUSEADDR, 1)) {
        LOG_ERROR("%s - cannot set SO_REUSEADDR on socket: %s", __func__, std::strerror(errno));
    }
    if (!set_option(socket.get(), IPPROTO_IP, IP_PKTINFO, 1)) {
        LOG_ERROR("%s - cannot set IP_PKTINFO on socket: %s", __func__, std::strerror(errno));
    }
    join_group(__func__, socket.get());
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(state.config->ssdp_server_port);
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    const int rc = bind(socket.get(), general(addr), sizeof addr);
    REQUIRE_CALL(rc == 0, "bind(fd, (struct sockaddr*) &addr, sizeof(addr))", rc);
    return socket;
}

void watch_socket()
{
    state.watcher.reset(
        event_new(state.base, state.socket.get(), EV_READ | EV_PERSIST, watcher_callback, nullptr));
    REQUIRE_MEMORY(state.watcher, "watcher");
    const int rc = event_add(state.watcher.get(), nullptr);
    REQUIRE_CALL(rc == 0, "event_add(watcher, NULL)", rc);
}

} // namespace

void velm_ssdp_server_set_event_base(event_base *base)
{
    state.base = base;
}

void velm_ssdp_server_init(const velm_config *config)
{
    LOG_TRACE("%s", __func__);
    REQUIRE_NOT_NULL(config, "config");
    state.config = config;
}

void ssdp_server_start()
{
    if (state.watcher != nullptr) {
        ssdp_server_stop();
    }
    REQUIRE_NOT_NULL(state.config, "config");
    if (state.config->ssdp_server_port == 0) {
        LOG_INFO("%s - port is not configured", __func__);
        return;
    }
    LOG_INFO("%s - ssdp server starting on port %u", __func__,
             unsigned{state.config->ssdp_server_port});
    if (!prepare_uuid(__func__)) {
        LOG_ERROR("%s - cannot set uuid", __func__);
        return;
    }
    LOG_INFO("%s - ssdp server uuid: %s", __func__, state.service_uuid.get());
    state.socket = prepare_socket();
    if (state.socket) {
        watch_socket();
    }
}

void velm_ssdp_server_address_came(const char *address)
{
    const bool is_ours = address == nullptr || address == velm_config_lan_ip_address(state.config);
    if (state.socket && is_ours) {
        state.address_wait.restart();
        join_again(-1, 0, nullptr);
    }
}

bool velm_ssdp_server_is_listening()
{
    return state.watcher != nullptr;
}

void ssdp_server_stop()
{
    LOG_INFO("%s", __func__);
    state.address_wait.end();
    state.watcher.reset();
    state.socket.reset();
    state.lan_interface = 0;
    state.member_of = 0;
    state.buffer.reset();
    state.reply.reset();
    state.unsent_told.reset();
    state.unsent_since = 0;
    state.service_uuid.reset();
}
