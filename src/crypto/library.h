#pragma once

/// Makes OpenSSL ready: its algorithms, the texts of its errors, its first random bytes. Takes 2 ms on a quick
/// machine. Once, before anything else of it is used.
void crypto_library_init();
