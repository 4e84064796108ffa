#pragma once

#include <string>

#include "config/record.h"

/// True when a search on the LAN is answered for this address and the configured port.
[[nodiscard]] bool doctor_search_finds(const velm_config &config, const std::string &lan_address);
