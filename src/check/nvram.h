#pragma once

#include "check/subject.h"

/// The settings in nvram: those that the daemon would ignore, and what the platform says of the radios and
/// of the LAN.
void check_nvram(const check_subject &subject, bool has_lan_address, check_findings *findings);
