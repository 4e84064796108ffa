#include "cutils/interface_addresses.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "handles/ifaddrs.h"
#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "common_netlink";

/// Calls `handle` with each IPv4 entry; false when the list cannot be read.
template <typename Handler>
bool read_addresses(Handler handle)
{
    ifaddrs *first = nullptr;
    if (getifaddrs(&first) != 0) {
        LOG_ERROR("%s - getifaddrs failed: %s", __func__, std::strerror(errno));
        return false;
    }
    const ifaddrs_ptr list{first};
    for (const ifaddrs *entry = first; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
            handle(*entry);
        }
    }
    return true;
}

/// An address with a label of its own is listed as "br0:1".
std::string interface_name(const ifaddrs &entry)
{
    std::string name{entry.ifa_name};
    name.erase(std::min(name.find(':'), name.size()));
    return name;
}

in_addr_t ipv4_of(const sockaddr *general)
{
    sockaddr_in address{};
    if (general != nullptr) {
        std::memcpy(&address, general, sizeof address);
    }
    return address.sin_addr.s_addr;
}

bool has_address(const ifaddrs &entry, in_addr_t wanted)
{
    const in_addr_t own = ipv4_of(entry.ifa_addr);
    const in_addr_t mask = (entry.ifa_flags & IFF_LOOPBACK) != 0 ? ipv4_of(entry.ifa_netmask) : 0;
    return own == wanted || (mask != 0 && (own & mask) == (wanted & mask));
}

} // namespace

std::optional<std::vector<interface_address>> interface_addresses_read()
{
    std::vector<interface_address> found;
    const bool is_whole = read_addresses([&found](const ifaddrs &entry) {
        found.push_back({if_nametoindex(interface_name(entry).c_str()), ipv4_of(entry.ifa_addr)});
    });
    return is_whole ? std::optional{std::move(found)} : std::nullopt;
}

std::optional<std::vector<std::string>> interface_addresses_of(const char *ifname)
{
    std::vector<std::string> found;
    const bool is_whole = read_addresses([&found, ifname](const ifaddrs &entry) {
        if (interface_name(entry) == ifname) {
            const in_addr_t address = ipv4_of(entry.ifa_addr);
            std::array<char, INET_ADDRSTRLEN> text{};
            inet_ntop(AF_INET, &address, text.data(), text.size());
            found.emplace_back(text.data());
        }
    });
    return is_whole ? std::optional{std::move(found)} : std::nullopt;
}

unsigned interface_with_address(const char *address, const char *preferred)
{
    in_addr_t wanted = 0;
    if (inet_pton(AF_INET, address, &wanted) != 1) {
        return 0;
    }
    std::string name;
    read_addresses([&name, wanted, preferred](const ifaddrs &entry) {
        if (has_address(entry, wanted) && (name.empty() || interface_name(entry) == preferred)) {
            name = interface_name(entry);
        }
    });
    return name.empty() ? 0 : if_nametoindex(name.c_str());
}
