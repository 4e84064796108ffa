#pragma once

#include <cstdint>

#include "velm_config.h"

/// Sends the push to each paired phone through the FCM HTTP v1 API.

/// Remembers the configuration (borrowed) and loads the service-account key; a missing file is
/// logged and leaves an earlier key in use, without which pushes fail. A new key drops the access
/// token, and with it the pushes that wait for one or for their turn.
void velm_fcm_messaging_init(const velm_config *config);

/// Sends one push to each live pairing. The first leaves after one second, each other one a second
/// later. Before them an access token is asked for, unless one is held or on its way; without one
/// nothing is sent. A pairing is read when its push is due. A 404 that is about the token unpairs the phone, unless it
/// has paired by another one meanwhile; a 401 has a new access token asked for before the next push.
void velm_fcm_messaging_push_to_all(std::uint32_t timeout, std::uint32_t type);
