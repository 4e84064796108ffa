#pragma once

#include "android_validation/assertion.h"
#include "handles/cjson.h"

/// Judges the payload of a Play Integrity token, whoever decoded it: genuine app, genuine device,
/// made for this very request and fresh. False comes with one line in the log that names the first
/// rule that failed.

/// Of `input` only the message digest counts: the token's nonce must equal it. Names in the verdict
/// are case-sensitive, and of doubled members the first counts. A null verdict is refused like one
/// without members; a null `package_name` (the app's own) is fatal.
[[nodiscard]] bool android_interpret_verdict(const android_verify_assertion_input &input,
                                             const cJSON *verdict, const char *package_name);
