#pragma once

#include "request/checks.h"
#include "velm_config.h"

/// The device check: the phone names one of the access point's own BSSIDs.

/// Remembers the configuration (borrowed). Runs again on reload.
void velm_request_device_check_init(const velm_config *config);

/// Queues the check, which continues the record with VELM_BREAK_NONE or VELM_BREAK_BSSID.
void make_device_check(velm_request_preprocessor *p);
