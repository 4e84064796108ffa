#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The IPv4 addresses that the interfaces have at this moment, as the kernel lists them. It lists an
/// address before it announces it, and no longer once it announces that it has gone.

struct interface_address {
    unsigned interface;    // its index
    std::uint32_t address; // network order
    auto operator<=>(const interface_address &) const = default;
};

/// Every address of every interface, in the kernel's order; nothing when they cannot be read, with a
/// line in the log.
[[nodiscard]] std::optional<std::vector<interface_address>> interface_addresses_read();

/// Those of one interface as dotted text, the first line of `ip` first; none without the interface.
[[nodiscard]] std::optional<std::vector<std::string>> interface_addresses_of(const char *ifname);

/// The index of the interface that has the address, 0 without one. When several have it, `preferred`
/// is taken if it is among them. A loopback interface has every address of its network.
[[nodiscard]] unsigned interface_with_address(const char *address, const char *preferred);
