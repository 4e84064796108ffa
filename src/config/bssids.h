#pragma once

#include "config/record.h"
#include "handles/cjson.h"

/// A copy of the BSSIDs; an empty array where there is no list.
[[nodiscard]] json_ptr velm_config_bssids_copy(const velm_config &config);
