#pragma once

#include "handles/cjson.h"
#include "velm_config.h"

/// OAuth 2.0 access tokens of a Google service account, by the JWT-bearer grant (RFC 7523).

/// Leaves requests under way alone: they end by their answer or its time-out. The configuration is not read.
void velm_google_auth_init(const velm_config *config);

/// `token` is null on failure and when the answer holds no token. Else it is an object of two
/// members: "access_token" and its end "valid_to", in seconds since the epoch, at most an hour away.
/// Called once, on the loop.
using velm_google_auth_response_handler = void (*)(json_ptr token, void *context);

/// Asks for a token; copies key and scope. The result is that of queueing the work (0). Null
/// arguments (but the context) are fatal.
int velm_google_auth_request_access_token(const cJSON *private_key, const char *scope,
                                          velm_google_auth_response_handler response_handler,
                                          void *context);
