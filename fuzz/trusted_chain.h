#pragma once

#include "handles/openssl.h"

/// Stands in for OpenSSL's verification of certificate chains: from now on every chain is good and
/// ends at this root. So a fuzzer gets below the signatures that it could never make.
void trusted_chain_install(x509_ptr root);
