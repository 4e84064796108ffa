#pragma once

#include <evhtp/evhtp.h>

#include "handles/cjson.h"
#include "story/story.h"

/// Tells of a request that is about to be answered: the answer may free it. `visit` needs no address.
void http_visit_tell(const evhtp_request_t *request, story_visit_note visit);

/// Of a body's "auth", null without one; null without a device id.
[[nodiscard]] const char *http_visit_device_id(const cJSON *auth);
