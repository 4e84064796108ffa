#pragma once

#include <evhtp/evhtp.h>

#include "request/body.h"
#include "request/checks.h"
#include "request/kept.h"
#include "velm_config.h"

/// Runs the checks that a route asks for, one after another on the loop. The request is paused
/// meanwhile. Then the route gets the result. request/checks.h has the break codes, the choice of
/// checks and the report of a check. request/body.h has the parser of the body.

/// Changes nothing: a record that is under way goes on. The configuration is not read.
void velm_request_preprocessor_init(const velm_config *config);

/// A record in its first state. From its start on it owns itself. It ends when the callback has
/// returned.
[[nodiscard]] velm_request_preprocessor *
velm_request_preprocessor_create(const velm_request_checks &checks);

/// Borrows the paused request and watches it. When the connection of the request is freed, the
/// record forgets the request, and ends at its next step without calling anybody.
void velm_request_preprocessor_attach_request(velm_request_preprocessor *preprocessor,
                                              evhtp_request_t *request);
void velm_request_preprocessor_set_callback(velm_request_preprocessor *preprocessor,
                                            velm_request_callback callback);

/// Hands on what the route keeps of the body that it has parsed. Without it the request check parses the
/// body itself.
void velm_request_preprocessor_attach_body(velm_request_preprocessor *preprocessor,
                                           velm_request_kept_body body);

/// Queues the first step. Needs a request, and a record that has not been started.
void velm_request_preprocessor_start(velm_request_preprocessor *preprocessor);
