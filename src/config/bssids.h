#pragma once

#include "handles/cjson.h"
#include "velm_config.h"

/// A copy of the BSSIDs; an empty array where there is no list.
[[nodiscard]] json_ptr velm_config_bssids_copy(const velm_config &config);
