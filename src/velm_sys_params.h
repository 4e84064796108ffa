#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "handles/cjson.h"
#include "launch/common_launch.h"

/// What the platform knows of the access point itself, read from nvram and from `ip`.

/// Every IPv4 address of the LAN bridge (the one whose members include "wl0"), one a line.
/// Runs a command and blocks meanwhile. velmctl may wait. The daemon asks through lan/query, which does not
/// block the loop.
[[nodiscard]] std::optional<std::string> get_ipv4_address_wlif();

inline constexpr int no_lan_bridge = -1;

/// The same in two steps: the command takes milliseconds in which its caller can do something else.
/// Without a LAN bridge there is none, and the error is no_lan_bridge.
[[nodiscard]] common_launched get_ipv4_address_wlif_begin();
[[nodiscard]] std::optional<std::string> get_ipv4_address_wlif_end(common_launched command);

/// The name of the LAN bridge, as nvram holds it; nothing when no bridge has "wl0".
[[nodiscard]] std::optional<std::string> get_lanif_name_wlif();

/// The LAN bridge with the setting in nvram that has its name; nothing when no bridge has "wl0".
struct sys_lan_bridge {
    std::string setting; // such as "lan0_ifname"
    std::optional<std::string> name;
};
[[nodiscard]] std::optional<sys_lan_bridge> sys_find_lan_bridge();

/// Only such a name is asked for its addresses: it goes into a shell command.
[[nodiscard]] bool sys_is_interface_name(std::string_view name);

/// A BSSID as nvram holds it, with the name of its setting. No value: the setting is missing or empty,
/// and its radio is left out.
struct sys_bssid {
    std::string setting; // such as "wl0_hwaddr"
    std::optional<std::string> value;
};
[[nodiscard]] std::vector<sys_bssid> sys_bssid_settings();

/// The BSSIDs of all radios in radio and interface order, as nvram holds them; a new array of
/// strings, empty without radios.
[[nodiscard]] json_ptr sys_bssids();

/// The access point's serial number; nothing when nvram does not hold one.
[[nodiscard]] std::optional<std::string> sys_serial_number();
/// Nothing when nvram holds an empty one.
[[nodiscard]] std::optional<std::string> sys_mac_address();
