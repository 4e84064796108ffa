#pragma once

#include "check/subject.h"

/// The certificate and the key of the HTTPS server, and the authorities of the cloud.
void check_certificates(const check_subject &subject, check_findings *findings);
