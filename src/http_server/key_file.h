#pragma once

#include "handles/openssl.h"

/// The private key of the server's certificate, PEM. Null when it cannot be read, with the reason in
/// OpenSSL's queue; one that is encrypted cannot.
[[nodiscard]] evp_pkey_ptr http_key_file_read(const char *path);
