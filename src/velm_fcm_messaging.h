#pragma once

#include <cstdint>

#include "velm_config.h"

/// Seconds before each push of a run, also the first, so that the phones do not all answer at once.
inline constexpr long velm_fcm_push_gap_s = 1;

/// Sends the push to each paired phone through the FCM HTTP v1 API.

/// Remembers the configuration (borrowed) and loads the service-account key. If the file is
/// missing, the log says so and an earlier key stays in use. Without a key pushes fail. A new key
/// drops the access token, and with it the pushes that wait for a token or for their turn.
void velm_fcm_messaging_init(const velm_config *config);

/// Sends one push to each live pairing. Each push, also the first, leaves one gap after the one before it.
///
/// If no access token is held, one is asked for first. Without it nothing is sent. A pairing is read when
/// its push is due. A 404 about the push token unpairs the phone, unless the phone has paired with another
/// token meanwhile. After a 401 a new access token is asked for before the next push.
void velm_fcm_messaging_push_to_all(std::uint32_t timeout, std::uint32_t type);
