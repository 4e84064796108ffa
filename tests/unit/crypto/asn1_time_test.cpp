#include "crypto/asn1_time.h"

#include <gtest/gtest.h>
#include <openssl/x509.h>

#include "handles/openssl.h"

namespace {

TEST(Asn1Time, OfACertificateThatLastsUntil2055IsThatMoment)
{
    const x509_ptr certificate{X509_new()};
    ASSERT_EQ(ASN1_TIME_set_string(X509_getm_notBefore(certificate.get()), "251122120310Z"), 1);
    ASSERT_EQ(ASN1_TIME_set_string(X509_getm_notAfter(certificate.get()), "20550101000000Z"), 1);
    EXPECT_EQ(asn1_time_seconds(X509_get0_notBefore(certificate.get())), 1763812990);
    EXPECT_EQ(asn1_time_seconds(X509_get0_notAfter(certificate.get())), 2682374400);
}

TEST(Asn1Time, ThatIsNoneHasNoSeconds)
{
    const x509_ptr certificate{X509_new()};
    EXPECT_FALSE(asn1_time_seconds(X509_get0_notAfter(certificate.get())).has_value());
}

} // namespace
