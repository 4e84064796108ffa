#pragma once

/// The HTTP statuses that the server answers with.
enum http_status : int {
    http_status_ok = 200,
    http_status_bad_request = 400,
    http_status_unauthorized = 401,
    http_status_forbidden = 403,
    http_status_not_found = 404,
    http_status_conflict = 409,
    http_status_precondition_failed = 412,
    http_status_content_too_large = 413,
    http_status_uri_too_long = 414,
    http_status_failed_dependency = 424,
    http_status_header_fields_too_large = 431,
    http_status_internal_error = 500,
    http_status_not_implemented = 501,
    http_status_unavailable = 503,
};

/// Its phrase, as registered; of another number the text "Unknown".
[[nodiscard]] const char *http_status_phrase(int status);
