#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "handles/cjson.h"

/// The signed assertion that a service account asks for a token with: a compact JWT, RS256, valid
/// for an hour from `now`. `key` is the parsed service-account key. None (logged) on failure.
[[nodiscard]] std::optional<std::string> velm_google_auth_make_jwt(const cJSON *key,
                                                                   const char *scope,
                                                                   const char *audience,
                                                                   std::time_t now);
