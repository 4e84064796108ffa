#pragma once

#include <optional>
#include <string>

#include "velm_config.h"

/// The Android integrity keys, JWKs as JSON text.
struct integrity_keys {
    std::string decryption;
    std::string verification;
};

/// Reads both key files of the configuration: both keys, or nothing and a log line, under the name
/// of the caller, of the first thing that is wrong.
[[nodiscard]] std::optional<integrity_keys> integrity_keys_load(const char *caller,
                                                                const velm_config &config);
