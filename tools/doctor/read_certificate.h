#pragma once

#include "handles/openssl.h"

/// The first certificate of a PEM file; null when there is none.
[[nodiscard]] x509_ptr doctor_read_certificate(const char *path);
