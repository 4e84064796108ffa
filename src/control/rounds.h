#pragma once

#include <cstddef>

#include "handles/cjson.h"

/// How many pushes, visits and reports all rounds of the document have together, the newest rounds first.
inline constexpr std::size_t control_rounds_events_limit = 256;

/// The document of "/v1/rounds": what happened in the last rounds, and the visits outside of them. It
/// holds nothing secret and no location, and every text of it is valid UTF-8.
[[nodiscard]] json_ptr control_rounds_document();
