#include "cutils/common_netlink.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <type_traits>
#include <utility>
#include <vector>

#include "async/common_async.h"
#include "cutils/interface_addresses.h"
#include "handles/argument.h"
#include "handles/fd.h"
#include "handles/libevent.h"
#include "logger/fatal.h"

struct common_netlink_observer {
    unique_fd socket;
    event_ptr event;
    common_netlink_callback callback = nullptr;
    void *user_data = nullptr;
    bool is_reading = false; // the event is added
};

namespace {

constexpr char log_category[] = "common_netlink";
constexpr char reader_name[] = "netlink_cb"; // its steps log in its name
constexpr std::size_t datagram_size = 8192;
constexpr std::size_t alignment = 4;
constexpr std::size_t known_limit = 4096;
constexpr int drain_limit = 4096;
constexpr long retry_s = 1;

using bytes = std::span<const std::uint8_t>;

enum class news { address_came, address_went, messages_were_lost };

/// On its way to the observer.
struct address_event {
    news what = news::address_came;
    std::array<char, IF_NAMESIZE> ifname{};
    std::array<char, INET_ADDRSTRLEN> address{};
};

struct module_state {
    event_base *base = nullptr;
    std::unique_ptr<common_netlink_observer> observer;
    common_netlink_loss_callback loss_callback = nullptr;
    std::set<interface_address> known; // what reading again does not report
    unsigned waiting = 0;              // reports that the loop has not delivered yet
    bool has_lost = false;             // messages, so that the addresses must be read again
    bool retries = false;              // a timer will read them
};
module_state state;

/// What the kernel sends may stand at any address of the buffer.
template <typename T>
T read_front(bytes from)
{
    static_assert(std::is_trivially_copyable_v<T>);
    T value{};
    std::memcpy(&value, from.data(), sizeof value);
    return value;
}

/// Behind a record of that length and its padding, which the last one may lack.
bytes behind(bytes from, std::size_t length)
{
    const std::size_t padded = (length + alignment - 1) / alignment * alignment;
    return from.subspan(std::min(padded, from.size()));
}

void remember(const interface_address &one)
{
    if (state.known.size() < known_limit) {
        state.known.insert(one);
    }
}

void read_again();

void resume_reading()
{
    common_netlink_observer *const observer = state.observer.get();
    if (observer->is_reading || state.waiting >= common_netlink_waiting_limit) {
        return;
    }
    const int rc = event_add(observer->event.get(), nullptr);
    REQUIRE_CALL(rc == 0, "event_add(e, NULL)", rc);
    observer->is_reading = true;
}

void pause_reading()
{
    common_netlink_observer *const observer = state.observer.get();
    if (observer->is_reading) {
        event_del(observer->event.get());
        observer->is_reading = false;
    }
}

/// The observer of losses may have gone since they were queued.
void hand_over(const address_event &event)
{
    common_netlink_observer *const observer = state.observer.get();
    if (event.what == news::address_came) {
        observer->callback(event.ifname.data(), event.address.data(), observer->user_data,
                           observer);
    } else if (state.loss_callback != nullptr) {
        state.loss_callback(event.what == news::address_went ? event.address.data() : nullptr);
    }
}

void deliver(void *user_data, short, common_async_context *) noexcept
{
    const std::unique_ptr<address_event> event = adopt<address_event>(user_data);
    --state.waiting;
    hand_over(*event);
    if (state.waiting > 0) {
        return;
    }
    if (state.has_lost) {
        read_again();
    }
    resume_reading();
}

/// Until as many wait as may.
void queue(std::unique_ptr<address_event> event)
{
    ++state.waiting;
    common_async_action_call(deliver, event.release());
    if (state.waiting >= common_netlink_waiting_limit) {
        pause_reading();
    }
}

void report(const interface_address &one)
{
    const allocation_name naming{reader_name, "address event"};
    remember(one);
    auto event = std::make_unique<address_event>();
    if (if_indextoname(one.interface, event->ifname.data()) == nullptr) {
        event->ifname = {};
    }
    inet_ntop(AF_INET, &one.address, event->address.data(), INET_ADDRSTRLEN);
    LOG_TRACE("%s - %s new ip: %s", reader_name, event->ifname.data(), event->address.data());
    if (state.observer == nullptr || state.observer->callback == nullptr) {
        return;
    }
    queue(std::move(event));
}

void report_loss(news what, std::uint32_t address)
{
    if (state.observer == nullptr || state.loss_callback == nullptr) {
        return;
    }
    const allocation_name naming{reader_name, "address event"};
    auto event = std::make_unique<address_event>();
    event->what = what;
    inet_ntop(AF_INET, &address, event->address.data(), INET_ADDRSTRLEN);
    queue(std::move(event));
}

void forget(const interface_address &one)
{
    state.known.erase(one);
    report_loss(news::address_went, one.address);
}

void retry(void *, short, common_async_context *) noexcept
{
    state.retries = false;
    if (state.has_lost && state.waiting == 0) {
        read_again();
    }
}

/// Reports what came while messages were lost. What finds no room is left for the next time, when
/// everything that waits has been delivered.
void read_again()
{
    const auto present = interface_addresses_read();
    if (!present) {
        if (!state.retries) {
            state.retries = true;
            common_async_action_schedule(retry, nullptr, retry_s, 0);
        }
        return;
    }
    state.has_lost = false;
    const std::set<interface_address> there{present->begin(), present->end()};
    std::erase_if(state.known,
                  [&there](const interface_address &one) { return !there.contains(one); });
    for (const interface_address &one : *present) {
        if (state.known.contains(one) || state.known.size() >= known_limit) {
            continue;
        }
        if (state.waiting >= common_netlink_waiting_limit) {
            state.has_lost = true;
            return;
        }
        report(one);
    }
    report_loss(news::messages_were_lost, INADDR_ANY);
}

/// The IPv4 address of an attribute; only IFA_LOCAL is the interface's own.
std::optional<std::uint32_t> local_address(const rtattr &head, bytes attribute)
{
    const bytes payload = attribute.subspan(sizeof head);
    if (head.rta_type != IFA_LOCAL || payload.size() != sizeof(in_addr)) {
        return std::nullopt;
    }
    return read_front<std::uint32_t>(payload);
}

/// Calls `handle` with each address of an RTM_NEWADDR or RTM_DELADDR message.
template <typename Handler>
void for_each_address(bytes message, Handler handle)
{
    constexpr std::size_t heads = sizeof(nlmsghdr) + sizeof(ifaddrmsg);
    if (message.size() < heads) {
        return;
    }
    const auto about = read_front<ifaddrmsg>(message.subspan(sizeof(nlmsghdr)));
    bytes rest = message.subspan(heads);
    while (rest.size() >= sizeof(rtattr)) {
        const auto head = read_front<rtattr>(rest);
        if (head.rta_len < sizeof head || head.rta_len > rest.size()) {
            return;
        }
        const auto address = local_address(head, rest.first(head.rta_len));
        if (address) {
            handle(interface_address{about.ifa_index, *address});
        }
        rest = behind(rest, head.rta_len);
    }
}

void handle_message(std::uint16_t type, bytes message)
{
    switch (type) {
    case RTM_NEWLINK:
        LOG_TRACE("%s - RTM_NEWLINK", reader_name);
        break;
    case RTM_DELLINK:
        LOG_TRACE("%s - RTM_DELLINK", reader_name);
        break;
    case RTM_NEWADDR:
        LOG_TRACE("%s - RTM_NEWADDR", reader_name);
        for_each_address(message, report);
        break;
    case RTM_DELADDR:
        for_each_address(message, forget);
        break;
    default:
        break;
    }
}

/// One datagram; what did not come from the kernel counts as empty.
ssize_t receive(int socket, std::span<std::uint8_t> buffer)
{
    sockaddr_nl sender{};
    socklen_t sender_size = sizeof sender;
    const ssize_t size = recvfrom(socket, buffer.data(), buffer.size(), MSG_DONTWAIT,
                                  reinterpret_cast<sockaddr *>(&sender), &sender_size);
    const bool is_kernel = sender_size == sizeof sender && sender.nl_pid == 0;
    return size > 0 && !is_kernel ? 0 : size;
}

/// The messages that are left are older than what reading again finds. False when more come than
/// can be taken now.
bool drain(int socket, std::span<std::uint8_t> buffer)
{
    for (int count = 0; count < drain_limit; ++count) {
        if (receive(socket, buffer) < 0 && errno != EINTR && errno != ENOBUFS) {
            return true;
        }
    }
    return false;
}

void netlink_cb(evutil_socket_t socket, short, void *) noexcept
{
    std::array<std::uint8_t, datagram_size> buffer;
    const ssize_t size = receive(socket, buffer);
    if (size < 0 && errno != EINTR && errno != EAGAIN) {
        state.has_lost = state.has_lost || errno == ENOBUFS;
        LOG_ERROR("%s - recvfrom failed: %s", __func__, std::strerror(errno));
    }
    if (state.has_lost) {
        if (drain(socket, buffer) && state.waiting == 0) {
            read_again();
        }
        return;
    }
    if (size > 0) {
        common_netlink_read_datagram(bytes{buffer}.first(static_cast<std::size_t>(size)));
    }
}

unique_fd open_socket(const char *caller)
{
    // The commands that the daemon runs must not inherit it.
    unique_fd socket{::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE)};
    if (!socket) {
        FATAL("%s: failed to open netlink socket: %s", caller, std::strerror(errno));
    }
    return socket;
}

} // namespace

void common_netlink_set_event_base(event_base *base)
{
    state.base = base;
}

void common_netlink_read_datagram(std::span<const std::uint8_t> datagram)
{
    bytes rest = datagram;
    while (rest.size() >= sizeof(nlmsghdr)) {
        const auto head = read_front<nlmsghdr>(rest);
        if (head.nlmsg_len < sizeof head || head.nlmsg_len > rest.size()) {
            LOG_DEBUG("%s - %d extra bytes in the end of netlink message", reader_name,
                      static_cast<int>(rest.size()));
            return;
        }
        handle_message(head.nlmsg_type, rest.first(head.nlmsg_len));
        rest = behind(rest, head.nlmsg_len);
    }
}

void common_netlink_observe_losses(common_netlink_loss_callback callback)
{
    state.loss_callback = callback;
}

void common_netlink_observe(common_netlink_callback callback, void *user_data)
{
    const allocation_name naming{__func__, "observer"};
    state.observer = std::make_unique<common_netlink_observer>();
    common_netlink_observer *const observer = state.observer.get();
    observer->callback = callback;
    observer->user_data = user_data;
    observer->socket = open_socket(__func__);
    const int fd = observer->socket.get();
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
    const int rc = bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local);
    REQUIRE_CALL(rc == 0, "bind(fd, (struct sockaddr *)&local, sizeof(local))", rc);
    // From here on every change is announced.
    state.known.clear();
    for (const interface_address &one :
         interface_addresses_read().value_or(std::vector<interface_address>{})) {
        remember(one);
    }
    observer->event.reset(event_new(state.base, fd, EV_READ | EV_PERSIST, netlink_cb, nullptr));
    REQUIRE_NOT_NULL(observer->event, "e");
    const int added = event_add(observer->event.get(), nullptr);
    REQUIRE_CALL(added == 0, "event_add(e, NULL)", added);
    observer->is_reading = true;
}
