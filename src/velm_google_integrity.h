#pragma once

#include <cstdint>
#include <span>

#include "handles/cjson.h"
#include "velm_config.h"

/// Has Google's Play Integrity service decode the tokens of Android phones.

/// Remembers the configuration (borrowed) and loads the service-account key; a missing file is
/// logged and leaves an earlier key in use. A new key drops the access token that is held; the
/// silence after a 429 outlasts every reload.
void velm_google_integrity_init(const velm_config *config);

/// `verdict` is borrowed for the call; null when there is none, the reason logged.
using velm_google_integrity_callback = void (*)(const cJSON *verdict, void *context);

/// Copies the token, asks, and calls `completion` (not null) exactly once, never inside this call:
/// within 20 s, 10 for an access token if a new one is needed and 10 for the verdict. Google is not
/// asked for a token that is no printable ASCII, nor for one of an address that has sent too much
/// junk (google/junk.h), nor in the hour after it has answered 429.
void velm_google_integrity_get_verdict(std::span<const std::uint8_t> token,
                                       velm_google_integrity_callback completion, void *context);
