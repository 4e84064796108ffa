#pragma once

#include <openssl/x509.h>

#include "check/subject.h"

/// The file of the cloud's authorities: it can be read, and its certificates are valid now and those of
/// authorities.
void check_authorities(const check_subject &subject, check_findings *findings);

/// One of the certificates in the file has that name.
[[nodiscard]] bool check_authorities_hold(const char *path, const X509_NAME *name);
