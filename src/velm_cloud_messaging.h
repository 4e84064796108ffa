#pragma once

#include <cstdint>

#include "google/push_content.h"
#include "handles/cjson.h"
#include "velm_config.h"

/// Decides whether a push may go out now, and builds the FCM message for one phone.

/// Remembers the configuration (borrowed), forgets the last push, initialises the FCM sender.
void velm_cloud_messaging_init(const velm_config *config);

/// Pushes to every paired phone, at most once in 60 s. A request within these 60 s makes no push.
/// `timeout` is in seconds.
void velm_cloud_messaging_push_to_all(std::uint32_t timeout, std::uint32_t type);

/// The message for one pairing, a new object. A null pairing is fatal.
/// Part of the interface; only tests call it. A push makes its message in google/push_content.
[[nodiscard]] json_ptr velm_cloud_messaging_generate_push_content(const cJSON *pairing,
                                                                  std::uint32_t timeout,
                                                                  std::uint32_t type);
