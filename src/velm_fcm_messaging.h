#pragma once

#include <cstdint>

#include "velm_config.h"

/// Sends the push to each paired phone through the FCM HTTP v1 API.

/// Loads the service-account key; a missing file is logged and pushes then fail.
void velm_fcm_messaging_init(const velm_config *config);

/// One request a live pairing, one second apart, the first after a second.
void velm_fcm_messaging_push_to_all(std::uint32_t timeout, std::uint32_t type);
