#pragma once

#include <cjson/cJSON.h>

#include "handles/handle.h"

using json_ptr = handle<cJSON, cJSON_Delete>;

/// Text printed by cJSON.
using json_text = handle<char, cJSON_free>;
