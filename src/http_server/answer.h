#pragma once

#include <evhtp/evhtp.h>

#include "handles/cjson.h"
#include "request/paths.h"
#include "request/status.h"

/// The one way in which a result callback answers.

/// How the work of a route ends. A story names a check for a refusal: the status decides which one.
struct http_outcome {
    http_status status = http_status_ok;
    const char *refusal = nullptr; // the reason for the log, a literal; null: nothing was refused
    json_ptr json = nullptr;       // 200 is answered with this object; null: with an empty body
    const char *text = nullptr;    // the same for an object that has been printed before
    const char *hint = nullptr;    // what the work saw, a literal; null: nothing to say
};

/// What the work gets. Borrowed.
struct http_asked {
    const evhtp_request_t *request;
    const cJSON *body; // null for a work that does not read it, unless the checks have kept it
    const cJSON *auth; // of the body
};

/// What a result callback answers with.
struct http_work {
    const char *handler; // the name of the result callback, for the log
    request_listed_path path;
    http_outcome (*run)(const http_asked &asked);
    bool reads_body;
};

/// Answers with the status of the break code or, when every check has passed, with what the work
/// gives. Logs start, refusal and end, and resumes the request. A null request is fatal.
void http_server_answer(evhtp_request_t *request, int break_code, const http_work &work);
