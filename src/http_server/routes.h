#pragma once

#include <evhtp/evhtp.h>

#include "handles/cjson.h"
#include "request/status.h"
#include "velm_config.h"

/// What the server's own files share: the result callbacks of the routes, and how a route answers.

/// Result callbacks: called by the preprocessor with the paused request and the break code; each
/// answers and resumes the request.
void http_method_info_handle(evhtp_request_t *request, int break_code);
void http_method_challenge_handle(evhtp_request_t *request, int break_code);
void http_method_pair_handle(evhtp_request_t *request, int break_code);
void http_method_pairings_handle(evhtp_request_t *request, int break_code);
void http_method_unpair_handle(evhtp_request_t *request, int break_code);
void http_method_location_handle(evhtp_request_t *request, int break_code);

/// Registers the paths and the general callback; a failure is fatal.
void http_server_register_routes(evhtp_t *http_server_instance);

/// Drops the reply text of "/info", which is kept while the configuration stands.
void http_server_forget_info();

/// The HTTP status of a break code: none 200, bad request 400, challenge 424, assertion 412, login 401,
/// pairing 404, BSSID 409, else 500.
[[nodiscard]] http_status http_server_status_from_break_code(int break_code);

/// Answers with an empty body and resumes the request when it is paused. The request must not be
/// touched afterwards.
void http_server_reply_status(evhtp_request_t *request, http_status status);

/// Answers 200 with the object printed unformatted as application/json, and resumes the request.
void http_server_reply_json(evhtp_request_t *request, const cJSON *object);

/// The same with the text of an object that has been printed before.
void http_server_reply_text(evhtp_request_t *request, const char *response_buf);

/// The configuration handed to velm_http_server_init.
[[nodiscard]] const velm_config *http_server_config();
