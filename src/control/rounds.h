#pragma once

#include "handles/cjson.h"

/// The document of "/v1/rounds": what happened in the last rounds, and the visits outside of them. It
/// holds nothing secret and no location, and every text of it is valid UTF-8.
[[nodiscard]] json_ptr control_rounds_document();
