#pragma once

#include <evhtp/evhtp.h>

#include <cstddef>
#include <string>
#include <vector>

#include "handles/cjson.h"
#include "handles/secret.h"
#include "velm_config.h"

/// Runs the checks that a route asks for, one after another on the loop, while the request is
/// paused, and hands the result to the route.

/// What ended the checks; the route maps it to an HTTP status.
enum velm_break_code : int {
    VELM_BREAK_NONE = 0,
    VELM_BREAK_BAD_REQUEST = 1,
    VELM_BREAK_CHALLENGE = 2,
    VELM_BREAK_ASSERTION = 3,
    VELM_BREAK_LOGIN = 4,
    VELM_BREAK_PAIRING = 5,
    VELM_BREAK_BSSID = 6,
};

struct velm_request_checks {
    bool request = false;
    bool assertion = false;
    bool user_pass = false;
    bool paired_app = false;
    bool device = false;
};

/// Called once, unless the request's connection has gone meanwhile: then nobody is called.
using velm_request_callback = void (*)(evhtp_request_t *request, int break_code);

struct velm_request_preprocessor;

void velm_request_preprocessor_init(const velm_config *config);

/// A record in its first state; it owns itself from start on and goes when the callback returned.
[[nodiscard]] velm_request_preprocessor *
velm_request_preprocessor_create(const velm_request_checks &checks);

/// Borrows the (paused) request and watches it: when its connection is freed, the record forgets it
/// and ends at its next step without calling anybody.
void velm_request_preprocessor_attach_request(velm_request_preprocessor *preprocessor,
                                              evhtp_request_t *request);
void velm_request_preprocessor_set_callback(velm_request_preprocessor *preprocessor,
                                            velm_request_callback callback);

/// Queues the first step. Needs a request, and a record that has not been started.
void velm_request_preprocessor_start(velm_request_preprocessor *preprocessor);

/// A check reports: VELM_BREAK_NONE passed, any other code ends the machine.
void velm_request_preprocessor_continue(velm_request_preprocessor *preprocessor, int break_code);

/// In a body, at any depth, the object "auth" and its members included. Each becomes an object of a hundred bytes and
/// more, whatever its length; a list of 80 whole locations has 640.
inline constexpr std::size_t velm_request_max_values = 1000;

struct velm_request_body {
    secret_json_ptr body; // null unless the status is 200
    int status = 400;     // 200, 400 or 500
};

/// Of a body that was parsed, only what the checks ask for: "auth" with its texts, which stay where they
/// are. The rest would be kept for as long as the checks take, and they may wait for Google.
[[nodiscard]] secret_json_ptr velm_request_keep_auth(secret_json_ptr body);

/// The request's JSON body with its "auth" object. A null request is fatal.
[[nodiscard]] velm_request_body velm_request_parse_request_body(evhtp_request_t *req);
