#pragma once

#include "handles/openssl.h"

/// The private key of the server's certificate, PEM. Null when it cannot be read, with the reason in
/// OpenSSL's queue; one that is encrypted cannot.
[[nodiscard]] evp_pkey_ptr http_key_file_read(const char *path);

/// Reads it already, which takes a millisecond, while something else is waited for: the next
/// http_key_file_read of the same path gets what was read, once. A key that could not be read is then read
/// again.
void http_key_file_prepare(const char *path);
