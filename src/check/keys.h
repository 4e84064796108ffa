#pragma once

#include "check/subject.h"

/// The keys of the service accounts, the keys for tokens of Android phones, the root of App Attest. What
/// the settings make no use of may be missing.
void check_keys(const check_subject &subject, check_findings *findings);
