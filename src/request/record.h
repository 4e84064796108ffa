#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>

#include "async/common_async.h"
#include "request/checks.h"
#include "request/kept.h"
#include "request/proof.h"

/// The record of one request on its way through the checks. Only the preprocessor and the checks
/// look inside; every step of theirs runs from the loop, so the request's connection may have been
/// freed between any two of them.

enum class preproc_state : int {
    init = 0,
    request_check = 1,
    assertion_check = 2,
    user_pass_check = 3,
    paired_app_check = 4,
    device_check = 5,
    finished = 6,
};

struct velm_request_preprocessor {
    velm_request_checks checks;
    evhtp_request_t *request = nullptr; // borrowed; null once it is gone
    bool request_gone = false;          // freed with its connection: nobody is left to answer
    velm_request_kept_body body;
    velm_request_callback callback = nullptr;
    preproc_state state = preproc_state::init;
    int break_code = VELM_BREAK_NONE;
    const char *refusal = nullptr;   // why, a literal; null: the log takes the reason of the check
    const char *explained = nullptr; // the same for people, a literal; null: as the log has it
    std::string hint;                // what the check saw, nothing secret; empty: nothing to say
    std::optional<velm_request_proof> proof; // what the assertion check went by
    std::optional<in_addr> client_address;   // nothing for a peer without IPv4
    // Views into `body.tree`; null when missing.
    const char *client_device_id = nullptr;
    const char *client_device_type = nullptr;
    const char *client_bssid = nullptr;
    const char *client_username = nullptr;
    const char *client_password = nullptr;
    const char *client_challenge = nullptr;
    // A view into the request, the header "X-Assertion"; null again when the request is gone.
    const char *client_assertion = nullptr;
};

/// A check gives its break code, or nothing when it will report by itself through
/// velm_request_preprocessor_continue.
using preproc_check = std::optional<int> (*)(velm_request_preprocessor &p);

/// Runs a check as an async action on its record and reports what it gives. When the request went
/// meanwhile the check does not begin, and the machine ends at its next step.
template <preproc_check Check>
void preproc_check_run(void *user_data, short /*events*/,
                       common_async_context * /*context*/) noexcept
{
    auto *const p = static_cast<velm_request_preprocessor *>(user_data);
    const std::optional<int> code = p->request_gone ? VELM_BREAK_NONE : Check(*p);
    if (code.has_value()) {
        velm_request_preprocessor_continue(p, *code);
    }
}
