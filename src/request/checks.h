#pragma once

#include <evhtp/evhtp.h>

/// What the preprocessor, the checks and the routes tell each other. The preprocessor runs the checks,
/// and no check knows more of it than this.

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

/// The record of one request; request/record.h shows the checks what is in it.
struct velm_request_preprocessor;

/// A check reports: VELM_BREAK_NONE passed, any other code ends the machine.
void velm_request_preprocessor_continue(velm_request_preprocessor *preprocessor, int break_code);
