#pragma once

#include <optional>
#include <string>

#include "handles/cjson.h"
#include "launch/common_launch.h"

/// What the platform knows of the access point itself, read from nvram and from `ip`.

/// Every IPv4 address of the LAN bridge (the one whose members include "wl0"), one a line.
/// Runs a command and blocks meanwhile: start-up and reload only.
[[nodiscard]] std::optional<std::string> get_ipv4_address_wlif();

/// The same in two steps: the command takes milliseconds in which its caller can do something else.
[[nodiscard]] common_launched get_ipv4_address_wlif_begin();
[[nodiscard]] std::optional<std::string> get_ipv4_address_wlif_end(common_launched command);

[[nodiscard]] std::optional<std::string> get_lanif_name_wlif();

/// The BSSIDs of all radios in radio and interface order, as nvram holds them; a new array of
/// strings, empty without radios.
[[nodiscard]] json_ptr sys_bssids();

[[nodiscard]] std::optional<std::string> sys_serial_number();
[[nodiscard]] std::optional<std::string> sys_mac_address();
