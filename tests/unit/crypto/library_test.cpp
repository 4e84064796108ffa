#include "crypto/library.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>

namespace {

/// The only test of its program: another would have made the library ready in part.
TEST(CryptoLibrary, IsReadyWithTextsAndRandomBytes)
{
    crypto_library_init();
    EXPECT_EQ(RAND_status(), 1);
    EXPECT_NE(ERR_reason_error_string(ERR_PACK(ERR_LIB_SSL, 0, SSL_R_WRONG_VERSION_NUMBER)),
              nullptr);
    crypto_library_init(); // again does no harm
}

} // namespace
