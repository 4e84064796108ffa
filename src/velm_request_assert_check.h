#pragma once

#include "request/checks.h"
#include "velm_config.h"

/// The assertion check: the paired app signed this very body over a fresh challenge.

/// Remembers the configuration (borrowed). Runs again on reload.
void velm_request_assert_check_init(const velm_config *config);

/// Queues the check, which continues the record with VELM_BREAK_NONE, VELM_BREAK_CHALLENGE or
/// VELM_BREAK_ASSERTION. The challenge is used up even when the signature turns out bad.
void make_assert_check(velm_request_preprocessor *p);
