#pragma once

#include <evhtp/evhtp.h>
#include <netinet/in.h>

#include <optional>

#include "handles/cjson.h"

/// The one line at WARN that every refused request leaves: which check refused it, why, and the address
/// and the device id. An operator finds a phone by its address or its device id.

/// Nothing secret belongs into `check` and `reason`. The peer and the device id may be unknown: a null
/// id is shown as "-". A long id is cut. Control characters never reach the log.
void velm_request_log_refusal(const char *check, const char *reason,
                              const std::optional<in_addr> &client, const char *device_id);

/// The same for a request and its body's "auth", null while there is none.
void velm_request_log_refusal_of(const evhtp_request_t *request, const char *check,
                                 const char *reason, const cJSON *auth);
