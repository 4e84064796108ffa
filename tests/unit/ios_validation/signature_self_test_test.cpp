#include "ios_validation/signature.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "fakes/fake_nvram.h"
#include "velm_attestation_engine.h"
#include "velm_config.h"

namespace {

int verification_result = 1;

} // namespace

/// A library that takes any signature for one of any key.
extern "C" int EVP_PKEY_verify(EVP_PKEY_CTX *, const unsigned char *, std::size_t,
                               const unsigned char *, std::size_t)
{
    return verification_result;
}

namespace {

TEST(IosSignatureSelfTest, FailsWithALibraryThatTakesAWrongKey)
{
    verification_result = 1;
    EXPECT_FALSE(ios_app_signature_self_test());
}

TEST(IosSignatureSelfTest, FailsWithALibraryThatTakesNoKey)
{
    verification_result = 0;
    EXPECT_FALSE(ios_app_signature_self_test());
}

TEST(AttestationEngineDeathTest, EndsAtStartWithALibraryThatTakesAWrongKey)
{
    verification_result = 1;
    fake_nvram = {};
    const velm_config config{};
    EXPECT_DEATH(velm_attestation_engine_init(&config), "ios_app_signature_self_test\\(\\)");
}

} // namespace
