#pragma once

#include <cstdint>

#include "handles/cjson.h"
#include "velm_config.h"

/// What a push says to one phone.

/// The kinds of push: data wakes the app, a notification is shown to the phone's user.
inline constexpr std::uint32_t velm_push_data = 0;
inline constexpr std::uint32_t velm_push_notification = 1;

/// The FCM message for one pairing, a new object. It names the access point as the configuration has it
/// now. `timeout` is in seconds.
[[nodiscard]] json_ptr velm_push_content_make(const velm_config &config, const cJSON *pairing,
                                              std::uint32_t timeout, std::uint32_t type);
