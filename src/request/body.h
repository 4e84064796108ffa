#pragma once

#include <evhtp/evhtp.h>

#include <cstddef>

#include "handles/secret.h"

/// The JSON body of a request.

/// In a body, at any depth, the object "auth" and its members included. Each becomes an object of a
/// hundred bytes and more, whatever its length. The longest list of whole locations that a body has bytes
/// for fits.
inline constexpr std::size_t velm_request_max_values = 1000;

/// How deep objects and arrays may be nested. A location has 3. The parser reads by recursion, and what
/// it takes of the stack stays resident.
inline constexpr std::size_t velm_request_max_depth = 100;

struct velm_request_body {
    secret_json_ptr body; // null unless the status is 200
    int status = 400;     // 200, 400 or 500
};

/// The request's JSON body with its "auth" object. A null request is fatal.
[[nodiscard]] velm_request_body velm_request_parse_request_body(evhtp_request_t *req);
