#pragma once

#include <optional>
#include <string>

#include "handles/cjson.h"
#include "launch/common_launch.h"

/// What the platform knows of the access point itself, read from nvram and from `ip`.

/// Every IPv4 address of the LAN bridge (the one whose members include "wl0"), one a line.
/// Runs a command and blocks meanwhile: start-up and reload only.
[[nodiscard]] std::optional<std::string> get_ipv4_address_wlif();

inline constexpr int no_lan_bridge = -1;

/// The same in two steps: the command takes milliseconds in which its caller can do something else.
/// Without a LAN bridge there is none, and the error is no_lan_bridge.
[[nodiscard]] common_launched get_ipv4_address_wlif_begin();
[[nodiscard]] std::optional<std::string> get_ipv4_address_wlif_end(common_launched command);

[[nodiscard]] std::optional<std::string> get_lanif_name_wlif();

/// The BSSIDs of all radios in radio and interface order, as nvram holds them; a new array of
/// strings, empty without radios.
[[nodiscard]] json_ptr sys_bssids();

[[nodiscard]] std::optional<std::string> sys_serial_number();
/// Nothing when nvram holds an empty one.
[[nodiscard]] std::optional<std::string> sys_mac_address();
