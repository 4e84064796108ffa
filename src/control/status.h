#pragma once

#include <cstdint>
#include <string>

#include "handles/cjson.h"
#include "velm_config.h"

/// The document of "/v1/status": how the daemon is now. It holds nothing secret and no location.

/// The daemon begins now. The record is borrowed for the life of the process; the file is empty when
/// none is read.
void control_status_init(const velm_config *config, const std::string &configuration_file);

[[nodiscard]] json_ptr control_status_document();

[[nodiscard]] std::string control_status_version();

/// In seconds since the epoch, by the clock as it is now: it may have been set right since.
[[nodiscard]] std::uint64_t control_status_start();
