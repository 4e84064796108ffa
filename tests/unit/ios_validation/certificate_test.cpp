#include "ios_validation/certificate.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>

#include <algorithm>
#include <string>

#include "fakes/app_attest_maker.h"
#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "fakes/watched_terminal.h"

namespace {

using lines = std::vector<std::string>;
constexpr std::time_t day = 86400;

/// A root, its intermediate and a leaf, all good.
class IosChain : public testing::Test {
  protected:
    IosChain()
    {
        fake_clock_set(app_attest_maker_now);
    }
    ~IosChain() override
    {
        fake_clock_reset();
    }

    [[nodiscard]] certificate_wish leaf_under(const app_attest_authority &issuer) const
    {
        certificate_wish wish{"Leaf", key.get()};
        wish.issuer = issuer.certificate.get();
        wish.issuer_key = issuer.key.get();
        return wish;
    }
    static test_bytes der(const certificate_wish &wish)
    {
        return certificate_der(certificate_make(wish).get());
    }
    static test_bytes der(const app_attest_authority &authority)
    {
        return certificate_der(authority.certificate.get());
    }
    [[nodiscard]] bool verifies(const test_bytes &leaf, const test_bytes &link) const
    {
        return ios_app_certificate_verify(root_pem.c_str(), leaf, link) != nullptr;
    }

    app_attest_authority root = authority_make("Root");
    app_attest_authority intermediate = authority_make("Intermediate", &root);
    std::string root_pem = certificate_pem(root.certificate.get());
    evp_pkey_ptr key = ec_key_make(NID_X9_62_prime256v1);
    captured_log log;
};

TEST_F(IosChain, VerifiesUpToTheRoot)
{
    EXPECT_TRUE(verifies(der(leaf_under(intermediate)), der(intermediate)));
    EXPECT_EQ(log.lines(), lines{});
}

TEST_F(IosChain, VerifiesALeafThatTheRootItselfSigned)
{
    EXPECT_TRUE(verifies(der(leaf_under(root)), der(intermediate)));
}

TEST_F(IosChain, RefusesASelfSignedIntermediateWithALeafUnderIt)
{
    const app_attest_authority forged = authority_make("Intermediate");
    EXPECT_FALSE(verifies(der(leaf_under(forged)), der(forged)));
    EXPECT_EQ(log.count("ERROR IAV - Verification: self"), 1);
}

TEST_F(IosChain, RefusesASelfSignedRootOfTheSameNameWithALeafUnderIt)
{
    const app_attest_authority forged = authority_make("Root");
    EXPECT_FALSE(verifies(der(leaf_under(forged)), der(forged)));
    EXPECT_EQ(log.count("ERROR IAV - Verification: "), 1);
}

TEST_F(IosChain, RefusesASelfSignedLeaf)
{
    EXPECT_FALSE(verifies(der(certificate_wish{"Leaf", key.get()}), der(intermediate)));
    EXPECT_EQ(log.count("ERROR IAV - Verification: self"), 1);
}

TEST_F(IosChain, RefusesAChainToAnotherRoot)
{
    const app_attest_authority other_root = authority_make("Other Root");
    const app_attest_authority other = authority_make("Other Intermediate", &other_root);
    EXPECT_FALSE(verifies(der(leaf_under(other)), der(other)));
    EXPECT_EQ(log.lines(),
              lines{"ERROR IAV - Verification: unable to get local issuer certificate"});
}

TEST_F(IosChain, RefusesALeafWhoseIntermediateIsAbsent)
{
    const app_attest_authority absent = authority_make("Absent", &root);
    EXPECT_FALSE(verifies(der(leaf_under(absent)), der(intermediate)));
    EXPECT_EQ(log.lines(),
              lines{"ERROR IAV - Verification: unable to get local issuer certificate"});
}

TEST_F(IosChain, RefusesALeafUsedAsAnAuthority)
{
    certificate_wish wish = leaf_under(root);
    wish.name = "Leaf as CA";
    const evp_pkey_ptr middle_key = ec_key_make(NID_X9_62_prime256v1);
    wish.subject_key = middle_key.get();
    app_attest_authority no_authority{nullptr, certificate_make(wish)};
    certificate_wish below{"Leaf", key.get(), no_authority.certificate.get(), middle_key.get()};
    EXPECT_FALSE(verifies(der(below), der(no_authority)));
    EXPECT_EQ(log.lines(), lines{"ERROR IAV - Verification: invalid CA certificate"});
}

TEST_F(IosChain, RefusesASignatureByAnotherKeyUnderTheIntermediatesName)
{
    certificate_wish wish = leaf_under(intermediate);
    const evp_pkey_ptr other = ec_key_make(NID_secp384r1);
    wish.issuer_key = other.get();
    EXPECT_FALSE(verifies(der(wish), der(intermediate)));
    EXPECT_EQ(log.lines(), lines{"ERROR IAV - Verification: certificate signature failure"});
}

TEST_F(IosChain, HoldsUntilTheLeafExpires)
{
    const test_bytes leaf = der(leaf_under(intermediate));
    fake_clock_set(app_attest_maker_now + day - 1);
    EXPECT_TRUE(verifies(leaf, der(intermediate)));
    fake_clock_set(app_attest_maker_now + day + 1);
    EXPECT_FALSE(verifies(leaf, der(intermediate)));
    EXPECT_EQ(log.lines(), lines{"ERROR IAV - Verification: certificate has expired"});
}

TEST_F(IosChain, RefusesAnExpiredIntermediate)
{
    certificate_wish wish{"Old", intermediate.key.get(), root.certificate.get(), root.key.get()};
    wish.ca = true;
    wish.to = app_attest_maker_now - 1;
    const app_attest_authority old{ec_key_make(NID_secp384r1), certificate_make(wish)};
    certificate_wish leaf = leaf_under(intermediate);
    leaf.issuer = old.certificate.get();
    EXPECT_FALSE(verifies(der(leaf), der(old)));
    EXPECT_EQ(log.lines(), lines{"ERROR IAV - Verification: certificate has expired"});
}

TEST_F(IosChain, NamesTheClockWhenACertificateIsNotYetValid)
{
    const test_bytes leaf = der(leaf_under(intermediate));
    fake_clock_set(1000);
    EXPECT_FALSE(verifies(leaf, der(intermediate)));
    EXPECT_EQ(log.lines(),
              (lines{"ERROR IAV - Verification: certificate is not yet valid",
                     "WARN IAV - Verification: the clock stands at 1000 seconds since 1970"}));
}

TEST_F(IosChain, RefusesCertificatesThatCannotBeParsed)
{
    const test_bytes leaf = der(leaf_under(intermediate));
    const test_bytes link = der(intermediate);
    const test_bytes garbage = bytes_of("no certificate");
    EXPECT_FALSE(verifies(garbage, link));
    EXPECT_FALSE(verifies(leaf, garbage));
    EXPECT_FALSE(verifies(bytes_joined({leaf, {0}}), link));
    EXPECT_FALSE(verifies(leaf, bytes_joined({link, {0}})));
    EXPECT_TRUE(verifies(leaf, link));
    EXPECT_EQ(log.lines(), lines{});
}

TEST_F(IosChain, RefusesARootThatCannotBeParsedAndStillKnowsTheGoodOne)
{
    const test_bytes leaf = der(leaf_under(intermediate));
    EXPECT_TRUE(verifies(leaf, der(intermediate)));
    EXPECT_EQ(ios_app_certificate_verify("no PEM", leaf, der(intermediate)), nullptr);
    EXPECT_EQ(ios_app_certificate_verify("", leaf, der(intermediate)), nullptr);
    EXPECT_TRUE(verifies(leaf, der(intermediate)));
}

TEST_F(IosChain, RefusesAnEncryptedRootAndAsksNobodyForItsPassphrase)
{
    const watched_terminal terminal;
    std::string pem = root_pem;
    pem.insert(pem.find('\n') + 1, "Proc-Type: 4,ENCRYPTED\n"
                                   "DEK-Info: AES-128-CBC,00112233445566778899AABBCCDDEEFF\n\n");
    EXPECT_EQ(
        ios_app_certificate_verify(pem.c_str(), der(leaf_under(intermediate)), der(intermediate)),
        nullptr);
    EXPECT_FALSE(terminal.opened);
}

TEST_F(IosChain, TrustsOnlyTheRootOfTheCallEvenAfterOthers)
{
    const test_bytes leaf = der(leaf_under(intermediate));
    const app_attest_authority other_root = authority_make("Other Root");
    const std::string other_pem = certificate_pem(other_root.certificate.get());
    EXPECT_TRUE(verifies(leaf, der(intermediate)));
    EXPECT_EQ(ios_app_certificate_verify(other_pem.c_str(), leaf, der(intermediate)), nullptr);
    EXPECT_TRUE(verifies(leaf, der(intermediate)));
}

TEST_F(IosChain, AnIntermediateThatWasGoodOnceIsVerifiedAnew)
{
    const test_bytes leaf = der(leaf_under(intermediate));
    EXPECT_TRUE(verifies(leaf, der(intermediate)));
    EXPECT_TRUE(verifies(leaf, der(intermediate)));
    fake_clock_set(app_attest_maker_now + 2 * day);
    certificate_wish young = leaf_under(intermediate);
    young.to = app_attest_maker_now + 3 * day;
    EXPECT_FALSE(verifies(der(young), der(intermediate)));
    EXPECT_EQ(log.lines(), lines{"ERROR IAV - Verification: certificate has expired"});
}

TEST_F(IosChain, AnIntermediateThatWasGoodOnceDoesNotStandInForAnother)
{
    const app_attest_authority other = authority_make("Other Intermediate", &root);
    EXPECT_TRUE(verifies(der(leaf_under(intermediate)), der(intermediate)));
    EXPECT_FALSE(verifies(der(leaf_under(intermediate)), der(other)));
    EXPECT_TRUE(verifies(der(leaf_under(other)), der(other)));
    EXPECT_FALSE(verifies(der(leaf_under(intermediate)), der(other)));
}

TEST_F(IosChain, AnIntermediateAsTheRootIsNoRoot)
{
    const std::string pem = certificate_pem(intermediate.certificate.get());
    EXPECT_EQ(ios_app_certificate_verify(pem.c_str(), der(leaf_under(intermediate)), der(root)),
              nullptr);
}

TEST_F(IosChain, TheNonceExtensionIsItsWholeValue)
{
    certificate_wish wish = leaf_under(intermediate);
    wish.nonce_extension = test_bytes{1, 2, 3};
    const x509_ptr certificate = certificate_make(wish);
    EXPECT_TRUE(std::ranges::equal(ios_app_certificate_nonce_extension(certificate.get()),
                                   test_bytes{1, 2, 3}));
    wish.nonce_extension.reset();
    EXPECT_TRUE(ios_app_certificate_nonce_extension(certificate_make(wish).get()).empty());
}

TEST_F(IosChain, ThePublicKeyComesAsPointAndAsSubjectPublicKeyInfo)
{
    const x509_ptr certificate = certificate_make(leaf_under(intermediate));
    const auto found = ios_app_certificate_public_key(certificate.get());
    ASSERT_TRUE(found.has_value());
    EXPECT_TRUE(std::ranges::equal(found->point, public_key_point(key.get())));
    EXPECT_TRUE(std::ranges::equal(std::span{found->der.get(), found->der_length},
                                   public_key_der(key.get())));
}

TEST_F(IosChain, AKeyThatIsOnNoEllipticCurveIsRefused)
{
    const evp_pkey_ptr ed25519 = ed25519_key_make();
    certificate_wish wish = leaf_under(intermediate);
    wish.subject_key = ed25519.get();
    EXPECT_FALSE(ios_app_certificate_public_key(certificate_make(wish).get()).has_value());
}

} // namespace
