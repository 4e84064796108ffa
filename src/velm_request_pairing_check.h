#pragma once

#include "request/checks.h"
#include "velm_config.h"

/// The paired-app check: the device id is that of a pairing.

/// Lets the proof of a request find the pairing of its device id. The configuration is not read.
void velm_request_pairing_check_init(const velm_config *config);

/// Queues the check, which continues the record with VELM_BREAK_NONE or VELM_BREAK_PAIRING.
void make_pairing_check(velm_request_preprocessor *p);
