#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>

/// "127.0.0.1:1900"; nothing when it is no IPv4 address with a port.
[[nodiscard]] std::optional<sockaddr_in> ssdp_address_parse(const std::string &text);
