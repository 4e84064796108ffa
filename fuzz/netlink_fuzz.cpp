#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "allocation_meter.h"
#include "async/common_async.h"
#include "cutils/common_netlink.h"
#include "fuzz_target.h"
#include "handles/libevent.h"

/// A datagram of the kernel.

namespace {

std::deque<std::pair<common_async_callback, void *>> actions;
std::vector<std::string> reported;

} // namespace

int common_async_action_call(common_async_callback callback, void *user_data)
{
    actions.emplace_back(callback, user_data);
    return 0;
}

int common_async_action_schedule(common_async_callback, void *, long, long)
{
    FUZZ_REQUIRE(false); // only when the addresses cannot be read
    return 0;
}

namespace {

template <typename Head>
Head head_of(fuzz_bytes bytes)
{
    Head head{};
    std::memcpy(&head, bytes.data(), sizeof head);
    return head;
}

fuzz_bytes behind(fuzz_bytes bytes, std::size_t length)
{
    return bytes.subspan(std::min((length + 3) & ~std::size_t{3}, bytes.size()));
}

/// The addresses that should be reported, by the same rules over the kernel's structures.
void addresses(fuzz_bytes message, std::vector<std::string> *out)
{
    constexpr std::size_t heads = NLMSG_LENGTH(sizeof(ifaddrmsg));
    if (message.size() < heads) {
        return;
    }
    for (fuzz_bytes rest = message.subspan(heads); rest.size() >= sizeof(rtattr);) {
        const auto head = head_of<rtattr>(rest);
        if (head.rta_len < sizeof head || head.rta_len > rest.size()) {
            return;
        }
        if (head.rta_type == IFA_LOCAL && head.rta_len == sizeof head + 4) {
            std::string text(INET_ADDRSTRLEN, '\0');
            inet_ntop(AF_INET, &rest[sizeof head], text.data(), INET_ADDRSTRLEN);
            out->push_back(text.c_str());
        }
        rest = behind(rest, head.rta_len);
    }
}

std::vector<std::string> rule(fuzz_bytes rest)
{
    std::vector<std::string> all;
    while (rest.size() >= sizeof(nlmsghdr)) {
        const auto head = head_of<nlmsghdr>(rest);
        if (head.nlmsg_len < sizeof head || head.nlmsg_len > rest.size()) {
            break;
        }
        if (head.nlmsg_type == RTM_NEWADDR) {
            addresses(rest.first(head.nlmsg_len), &all);
        }
        rest = behind(rest, head.nlmsg_len);
    }
    return all;
}

void observe(const char *ifname, const char *address, void *, common_netlink_observer *)
{
    FUZZ_REQUIRE(std::strlen(ifname) < 16);
    reported.emplace_back(address);
}

void deliver()
{
    while (!actions.empty()) {
        const auto [callback, user_data] = actions.front();
        actions.pop_front();
        callback(user_data, 0, nullptr);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const event_base_ptr loop{event_base_new()};
    static const bool observing = [] {
        common_netlink_set_event_base(loop.get());
        common_netlink_observe(observe, nullptr);
        return true;
    }();
    FUZZ_REQUIRE(observing);
    const fuzz_bytes datagram{data, size};
    reported.clear();
    const allocation_meter meter;
    common_netlink_read_datagram(datagram);
    FUZZ_REQUIRE(reported.empty()); // never from inside
    // A report of 32 bytes and a note of 48 for an attribute of 8.
    FUZZ_REQUIRE(meter.peak() <= 24 * size + 8192);
    deliver();
    FUZZ_REQUIRE(reported == rule(datagram));
    return 0;
}
