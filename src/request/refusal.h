#pragma once

#include <evhtp/evhtp.h>
#include <netinet/in.h>

#include <optional>

#include "handles/cjson.h"

/// The one line at WARN that every refused request leaves: which check refused it and why, for which
/// device id and address. Whoever looks after the access point finds a phone by either.

/// Nothing secret belongs into `check` and `reason`. The peer and the device id may be unknown: a null
/// id is shown as "-". What is too long of an id is cut, and control characters never reach the log.
void velm_request_log_refusal(const char *check, const char *reason,
                              const std::optional<in_addr> &client, const char *device_id);

/// The same for a request and its body's "auth", null while there is none.
void velm_request_log_refusal_of(const evhtp_request_t *request, const char *check,
                                 const char *reason, const cJSON *auth);
