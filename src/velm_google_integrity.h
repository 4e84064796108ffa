#pragma once

#include <cstdint>
#include <span>

#include "handles/cjson.h"
#include "velm_config.h"

/// Has Google's Play Integrity service decode the tokens of Android phones.

/// Remembers the configuration (borrowed) and loads the service-account key. If the file is
/// missing, the log says so and an earlier key stays in use. A new key drops the access token that
/// is held. The silence after a 429 outlasts every reload.
void velm_google_integrity_init(const velm_config *config);

/// `verdict` is borrowed for the call. It is null when there is none; the log then has the reason.
using velm_google_integrity_callback = void (*)(const cJSON *verdict, void *context);

/// Copies the token, asks Google, and calls `completion` (not null) exactly once, never inside this
/// call. It takes at most 20 s: 10 for an access token if a new one is needed, and 10 for the
/// verdict.
///
/// Google is not asked about a token that is not printable ASCII. Nor is Google asked for an
/// address that has sent too much junk (google/junk.h), nor in the hour after it has answered 429.
void velm_google_integrity_get_verdict(std::span<const std::uint8_t> token,
                                       velm_google_integrity_callback completion, void *context);
