#include "ios_validation/ios_app_validate.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/objects.h>

#include <functional>
#include <string>

#include "fakes/app_attest_maker.h"
#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"

namespace {

using lines = std::vector<std::string>;

constexpr char app_id[] = "0123456789.org.example.app";

/// What the callbacks are asked and what they answer.
struct recorder {
    std::optional<test_bytes> key;
    unsigned written = 0;
    unsigned write_result = 1;
    std::uint32_t stored_counter = 0;
    std::optional<std::uint32_t> new_counter;
    unsigned set_result = 1;
};

recorder &recorder_of(const ios_app_validator *iav)
{
    return *static_cast<recorder *>(ios_app_validator_get_user_data(iav));
}

constexpr ios_app_validator_callbacks callbacks = {
    [](ios_app_validator *iav, std::span<const std::uint8_t> der) {
        recorder_of(iav).key = test_bytes(der.begin(), der.end());
        ++recorder_of(iav).written;
        return recorder_of(iav).write_result;
    },
    [](ios_app_validator *iav) { return recorder_of(iav).key; },
    [](ios_app_validator *iav, std::uint32_t counter) {
        recorder_of(iav).new_counter = counter;
        return recorder_of(iav).set_result;
    },
    [](ios_app_validator *iav) { return recorder_of(iav).stored_counter; }};

class IosValidate : public testing::Test {
  protected:
    IosValidate()
    {
        fake_clock_set(app_attest_maker_now);
        trust(phone.root);
        ERR_clear_error();
        log.clear();
    }
    ~IosValidate() override
    {
        EXPECT_EQ(ERR_peek_error(), 0UL) << "an entry was left in OpenSSL's error queue";
        fake_clock_reset();
    }

    void trust(const app_attest_authority &root)
    {
        const std::string pem = certificate_pem(root.certificate.get());
        EXPECT_EQ(ios_app_validator_set_root_ca(iav.get(), pem.c_str()), 1);
    }
    unsigned attest(const test_bytes &object)
    {
        log.clear();
        return ios_app_validate_attestation(iav.get(), object, hash);
    }
    unsigned attest(const auth_data_wish &auth_data)
    {
        return attest(phone.attest(auth_data, hash).encode());
    }
    unsigned assert_with(const test_bytes &object)
    {
        log.clear();
        return ios_app_validate_assertion(iav.get(), object, hash);
    }
    unsigned assert_with(const auth_data_wish &auth_data)
    {
        return assert_with(phone.assert_request(auth_data, hash));
    }
    [[nodiscard]] auth_data_wish request(std::uint32_t counter) const
    {
        auth_data_wish wish = phone.auth_data();
        wish.counter = counter;
        return wish;
    }
    void expect_attestation_refused(const char *reason) const
    {
        EXPECT_EQ(log.lines(),
                  (lines{std::string{"DEBUG IAV - "} + reason, "ERROR IAV - Attestation failed"}));
        EXPECT_EQ(seen.written, 0U);
    }
    void expect_assertion_refused(const char *reason) const
    {
        EXPECT_EQ(log.lines(),
                  (lines{std::string{"DEBUG IAV - "} + reason, "ERROR IAV - Assertion failed"}));
        EXPECT_EQ(seen.new_counter, std::nullopt);
    }

    // One phone for all: its keys take the time.
    static inline const app_attest_phone phone{app_id};
    test_bytes hash = sha256_of(bytes_of("challenge"));
    recorder seen;
    captured_log log;
    ios_app_validator_ptr iav = ios_app_validator_new(app_id, &callbacks, &seen);
};

class IosAttestation : public IosValidate {};

TEST_F(IosAttestation, OfAGenuinePhoneHandsOverItsKey)
{
    EXPECT_EQ(attest(phone.auth_data()), 1U);
    EXPECT_EQ(seen.key, public_key_der(phone.key.get()));
    EXPECT_EQ(seen.written, 1U);
    EXPECT_EQ(log.lines(), lines{"TRACE IAV - Attestation success"});
}

TEST_F(IosAttestation, ReturnsWhatWritePubKeyReturns)
{
    seen.write_result = 77;
    EXPECT_EQ(attest(phone.auth_data()), 77U);
}

TEST_F(IosAttestation, FailsWhenWritePubKeyRefuses)
{
    seen.write_result = 0;
    EXPECT_EQ(attest(phone.auth_data()), 0U);
    EXPECT_EQ(log.lines(), lines{"ERROR IAV - Attestation failed"});
}

TEST_F(IosAttestation, SucceedsWithoutWritePubKey)
{
    constexpr ios_app_validator_callbacks none{};
    for (const ios_app_validator_callbacks *table :
         {&none, static_cast<decltype(&none)>(nullptr)}) {
        iav = ios_app_validator_new(app_id, table, nullptr);
        trust(phone.root);
        EXPECT_NE(attest(phone.auth_data()), 0U);
    }
}

TEST_F(IosAttestation, WithoutAnArgumentFailsWithoutAReason)
{
    const test_bytes object = phone.attest(phone.auth_data(), hash).encode();
    EXPECT_EQ(ios_app_validate_attestation(nullptr, object, hash), 0U);
    EXPECT_EQ(ios_app_validate_attestation(iav.get(), {}, hash), 0U);
    EXPECT_EQ(ios_app_validate_attestation(iav.get(), object, {}), 0U);
    EXPECT_EQ(log.lines(), lines(3, "ERROR IAV - Attestation failed"));
}

TEST_F(IosAttestation, TakesAClientDataHashOfAnyLength)
{
    for (const std::size_t length : {std::size_t{1}, std::size_t{21}, std::size_t{100}}) {
        hash = test_bytes(length, 0x5a);
        EXPECT_EQ(attest(phone.auth_data()), 1U);
    }
}

TEST_F(IosAttestation, ThatIsNoCborCannotBeDecoded)
{
    EXPECT_EQ(attest({0xff}), 0U);
    expect_attestation_refused("Cannot decode CBOR");
}

TEST_F(IosAttestation, CutAnywhereCannotBeDecoded)
{
    test_bytes object = phone.attest(phone.auth_data(), hash).encode();
    object.pop_back();
    EXPECT_EQ(attest(object), 0U);
    expect_attestation_refused("Cannot decode CBOR");
}

TEST_F(IosAttestation, WithAFourthKeyIsNoAttestationObject)
{
    const attestation_parts parts = phone.attest(phone.auth_data(), hash);
    EXPECT_EQ(attest(cbor_make_map({{cbor_make_text("fmt"), cbor_make_text(parts.fmt)},
                                    {cbor_make_text("attStmt"), parts.statement()},
                                    {cbor_make_text("authData"), cbor_make_bytes(parts.auth_data)},
                                    {cbor_make_text("more"), {0}}})),
              0U);
    expect_attestation_refused("Cannot create attestation obj");
}

TEST_F(IosAttestation, WithMoreKeysThanAnyObjectHasIsNoAttestationObjectEither)
{
    cbor_pairs pairs;
    for (char key = 'a'; key < 'a' + 20; ++key) {
        pairs.emplace_back(cbor_make_text(std::string(1, key)), test_bytes{0});
    }
    EXPECT_EQ(attest(cbor_make_map(pairs)), 0U);
    expect_attestation_refused("Cannot create attestation obj");
}

TEST_F(IosAttestation, WithAnotherFormatIsNoAttestationObject)
{
    attestation_parts parts = phone.attest(phone.auth_data(), hash);
    parts.fmt = "packed";
    EXPECT_EQ(attest(parts.encode()), 0U);
    expect_attestation_refused("Cannot create attestation obj");
}

TEST_F(IosAttestation, WithOneCertificateIsNoAttestationObject)
{
    attestation_parts parts = phone.attest(phone.auth_data(), hash);
    parts.x5c.pop_back();
    EXPECT_EQ(attest(parts.encode()), 0U);
    expect_attestation_refused("Cannot create attestation obj");
}

TEST_F(IosAttestation, WithThreeCertificatesIsNoAttestationObject)
{
    attestation_parts parts = phone.attest(phone.auth_data(), hash);
    parts.x5c.push_back(certificate_der(phone.root.certificate.get()));
    EXPECT_EQ(attest(parts.encode()), 0U);
    expect_attestation_refused("Cannot create attestation obj");
}

TEST_F(IosAttestation, TakesAReceiptOf4096BytesAndNoneOf4097OrZero)
{
    attestation_parts parts = phone.attest(phone.auth_data(), hash);
    parts.receipt = test_bytes(4096, 0);
    EXPECT_EQ(attest(parts.encode()), 1U);
    seen = {};
    for (const std::size_t length : {std::size_t{0}, std::size_t{4097}}) {
        parts.receipt = test_bytes(length, 0);
        EXPECT_EQ(attest(parts.encode()), 0U);
        expect_attestation_refused("Cannot create attestation obj");
    }
}

TEST_F(IosAttestation, WithShortAuthDataHasNone)
{
    attestation_parts parts = phone.attest(phone.auth_data(), hash);
    parts.auth_data.resize(86);
    EXPECT_EQ(attest(parts.encode()), 0U);
    expect_attestation_refused("Cannot extract auth data");
}

TEST_F(IosAttestation, WithAShortCredentialIdHasNoAuthData)
{
    auth_data_wish wish = phone.auth_data();
    wish.credential_id.resize(31);
    EXPECT_EQ(attest(wish), 0U);
    expect_attestation_refused("Cannot extract auth data");
}

TEST_F(IosAttestation, UnderAnotherRootHasAnInvalidChain)
{
    trust(authority_make("Other Root"));
    EXPECT_EQ(attest(phone.auth_data()), 0U);
    EXPECT_EQ(log.lines(),
              (lines{"ERROR IAV - Verification: unable to get local issuer certificate",
                     "DEBUG IAV - Invalid ca chain", "ERROR IAV - Attestation failed"}));
}

TEST_F(IosAttestation, UnderACustomRootThatIsNoCertificateHasAnInvalidChain)
{
    EXPECT_EQ(ios_app_validator_set_root_ca(iav.get(), "no certificate"), 1);
    EXPECT_EQ(attest(phone.auth_data()), 0U);
    expect_attestation_refused("Invalid ca chain");
}

TEST_F(IosAttestation, ThatBringsItsOwnTrustAnchorHasAnInvalidChain)
{
    const app_attest_authority forged = authority_make("Test CA 1");
    attestation_parts parts = phone.attest(phone.auth_data(), hash);
    certificate_wish wish{"Forged", phone.key.get(), forged.certificate.get(), forged.key.get()};
    wish.nonce_extension = nonce_extension_value(sha256_of(bytes_joined({parts.auth_data, hash})));
    parts.x5c = {certificate_der(certificate_make(wish).get()),
                 certificate_der(forged.certificate.get())};
    EXPECT_EQ(attest(parts.encode()), 0U);
    EXPECT_TRUE(log.has("DEBUG IAV - Invalid ca chain"));
    EXPECT_EQ(seen.written, 0U);
}

TEST_F(IosAttestation, WithoutACustomRootNeedsApplesRoot)
{
    for (const char *none : {"", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(ios_app_validator_set_root_ca(iav.get(), none), 1);
        EXPECT_EQ(attest(phone.auth_data()), 0U);
        EXPECT_TRUE(log.has("DEBUG IAV - Invalid ca chain"));
        trust(phone.root);
        EXPECT_EQ(attest(phone.auth_data()), 1U);
    }
}

/// An attestation whose certificate carries this extension instead of the right one.
test_bytes with_extension(const app_attest_phone &phone, const test_bytes &hash,
                          const std::optional<test_bytes> &value)
{
    attestation_parts parts = phone.attest(phone.auth_data(), hash);
    parts.x5c[0] = phone.leaf_with_extension(value);
    return parts.encode();
}

TEST_F(IosAttestation, WithoutTheExtensionOrWithAnEmptyOneHasNoOid)
{
    EXPECT_EQ(attest(with_extension(phone, hash, std::nullopt)), 0U);
    expect_attestation_refused("Cannot extract OID");
    EXPECT_EQ(attest(with_extension(phone, hash, test_bytes{})), 0U);
    expect_attestation_refused("Cannot extract OID");
}

TEST_F(IosAttestation, TakesTheLastThirtyTwoBytesOfTheExtensionAsTheNonce)
{
    const test_bytes nonce = sha256_of(bytes_joined({phone.auth_data().attestation(), hash}));
    EXPECT_EQ(attest(with_extension(phone, hash, nonce)), 1U);
    EXPECT_EQ(attest(with_extension(phone, hash, bytes_joined({test_bytes(90, 9), nonce}))), 1U);
}

TEST_F(IosAttestation, WithAnotherNonceOrAShortOneMismatches)
{
    const test_bytes nonce = sha256_of(bytes_joined({phone.auth_data().attestation(), hash}));
    const test_bytes longer = bytes_joined({nonce, {0}});
    const test_bytes shorter{nonce.begin() + 1, nonce.end()};
    for (const test_bytes &value : {longer, shorter, test_bytes(32, 0), test_bytes(1, 0)}) {
        EXPECT_EQ(attest(with_extension(phone, hash, value)), 0U);
        expect_attestation_refused("OID mismatch");
    }
}

TEST_F(IosAttestation, ForAnotherClientDataHashMismatches)
{
    const test_bytes object = phone.attest(phone.auth_data(), hash).encode();
    hash.back() ^= 1;
    EXPECT_EQ(attest(object), 0U);
    expect_attestation_refused("OID mismatch");
}

TEST_F(IosAttestation, OfAKeyOnNoEllipticCurveHasNoPublicKey)
{
    const evp_pkey_ptr ed25519 = ed25519_key_make();
    attestation_parts parts = phone.attest(phone.auth_data(), hash);
    certificate_wish wish{"Ed25519", ed25519.get(), phone.intermediate.certificate.get(),
                          phone.intermediate.key.get()};
    wish.nonce_extension = nonce_extension_value(sha256_of(bytes_joined({parts.auth_data, hash})));
    parts.x5c[0] = certificate_der(certificate_make(wish).get());
    EXPECT_EQ(attest(parts.encode()), 0U);
    expect_attestation_refused("Cannot extract pub key");
}

TEST_F(IosAttestation, OfAnotherAppMismatches)
{
    auth_data_wish wish = phone.auth_data();
    wish.rp_id_hash = sha256_of(bytes_of("0123456789.org.example.app2"));
    EXPECT_EQ(attest(wish), 0U);
    expect_attestation_refused("AppId mismatch");
}

TEST_F(IosAttestation, WithACounterOfOneIsRefused)
{
    EXPECT_EQ(attest(request(1)), 0U);
    expect_attestation_refused("Invalid counter");
}

TEST_F(IosAttestation, OfTheDevelopmentEnvironmentNeedsThePermission)
{
    auth_data_wish wish = phone.auth_data();
    wish.aaguid = aaguid_develop;
    EXPECT_EQ(attest(wish), 0U);
    expect_attestation_refused("Aaguid mismatch");
    ios_app_validator_set_develop(iav.get(), 1);
    EXPECT_EQ(attest(wish), 1U);
    EXPECT_EQ(attest(phone.auth_data()), 1U);
    seen = {};
    ios_app_validator_set_develop(iav.get(), 0);
    EXPECT_EQ(attest(wish), 0U);
    expect_attestation_refused("Aaguid mismatch");
}

TEST_F(IosAttestation, WithAnyOtherAaguidIsRefused)
{
    ios_app_validator_set_develop(iav.get(), 1);
    for (std::size_t i = 0; i < 16; ++i) {
        auth_data_wish wish = phone.auth_data();
        wish.aaguid[i] ^= 1;
        EXPECT_EQ(attest(wish), 0U);
        expect_attestation_refused("Aaguid mismatch");
    }
}

TEST_F(IosAttestation, OfAnotherKeyHasAnInvalidCredentialId)
{
    auth_data_wish wish = phone.auth_data();
    wish.credential_id[31] ^= 1;
    EXPECT_EQ(attest(wish), 0U);
    expect_attestation_refused("Invalid credential id");
}

TEST_F(IosAttestation, WithFortyBytesOfCredentialIdLooksAtTheFirstThirtyTwo)
{
    auth_data_wish wish = phone.auth_data();
    wish.credential_id.resize(40, 0xee);
    EXPECT_EQ(attest(wish), 1U);
}

TEST_F(IosAttestation, TestsNeitherFlagsNorReceipt)
{
    for (const int flags : {0, 0x40, 0xff}) {
        auth_data_wish wish = phone.auth_data();
        wish.flags = static_cast<std::uint8_t>(flags);
        EXPECT_EQ(attest(wish), 1U);
    }
}

TEST_F(IosAttestation, IgnoresWhatStandsBehindTheObject)
{
    test_bytes object = phone.attest(phone.auth_data(), hash).encode();
    object.push_back(0xff);
    EXPECT_EQ(attest(object), 1U);
}

TEST_F(IosAttestation, AFailureLeavesTheValidatorUsable)
{
    EXPECT_EQ(attest({0xff}), 0U);
    EXPECT_EQ(attest(phone.auth_data()), 1U);
}

/// With everything wrong, mending one fault after the other gives the reasons in their order.
TEST_F(IosAttestation, ReportsTheFirstOfItsFaults)
{
    auth_data_wish wish;
    wish.rp_id_hash = test_bytes(32);
    wish.counter = 1;
    wish.aaguid = aaguid_develop;
    wish.credential_id = test_bytes(31);
    const evp_pkey_ptr ed25519 = ed25519_key_make();
    const app_attest_authority stranger = authority_make("Stranger");
    const app_attest_authority *issuer = &stranger;
    EVP_PKEY *key = ed25519.get();
    enum { none, wrong, right } nonce = none;
    std::string fmt = "packed";
    const auto refused_for = [&]() -> std::string {
        certificate_wish leaf{"Leaf", key, issuer->certificate.get(), issuer->key.get()};
        attestation_parts parts;
        parts.fmt = fmt;
        parts.auth_data = wish.attestation();
        if (nonce != none) {
            leaf.nonce_extension =
                nonce == wrong ? test_bytes(32) : sha256_of(bytes_joined({parts.auth_data, hash}));
        }
        parts.x5c = {certificate_der(certificate_make(leaf).get()),
                     certificate_der(issuer->certificate.get())};
        EXPECT_EQ(attest(parts.encode()), 0U);
        EXPECT_EQ(log.count("DEBUG"), 1);
        return log.lines().at(log.lines().size() - 2);
    };
    EXPECT_EQ(refused_for(), "DEBUG IAV - Cannot create attestation obj");
    fmt = "apple-appattest";
    EXPECT_EQ(refused_for(), "DEBUG IAV - Cannot extract auth data");
    wish.credential_id = test_bytes(32);
    EXPECT_EQ(refused_for(), "DEBUG IAV - Invalid ca chain");
    issuer = &phone.intermediate;
    EXPECT_EQ(refused_for(), "DEBUG IAV - Cannot extract OID");
    nonce = wrong;
    EXPECT_EQ(refused_for(), "DEBUG IAV - OID mismatch");
    nonce = right;
    EXPECT_EQ(refused_for(), "DEBUG IAV - Cannot extract pub key");
    key = phone.key.get();
    EXPECT_EQ(refused_for(), "DEBUG IAV - AppId mismatch");
    wish.rp_id_hash = phone.auth_data().rp_id_hash;
    EXPECT_EQ(refused_for(), "DEBUG IAV - Invalid counter");
    wish.counter = 0;
    EXPECT_EQ(refused_for(), "DEBUG IAV - Aaguid mismatch");
    wish.aaguid = aaguid_production;
    EXPECT_EQ(refused_for(), "DEBUG IAV - Invalid credential id");
    EXPECT_EQ(seen.written, 0U);
}

class IosAssertion : public IosValidate {
  protected:
    IosAssertion()
    {
        seen.key = public_key_der(phone.key.get());
    }
};

TEST_F(IosAssertion, OfTheKeyIsAcceptedAndItsCounterHandedOver)
{
    seen.set_result = 9;
    EXPECT_EQ(assert_with(request(5)), 9U);
    EXPECT_EQ(seen.new_counter, 5U);
    EXPECT_EQ(log.lines(), lines{"TRACE IAV - Assertion success"});
}

TEST_F(IosAssertion, FollowsTheAttestationThatGaveTheKey)
{
    seen.key.reset();
    EXPECT_EQ(attest(phone.auth_data()), 1U);
    EXPECT_EQ(assert_with(request(1)), 1U);
}

TEST_F(IosAssertion, FailsWhenSetCounterRefuses)
{
    seen.set_result = 0;
    EXPECT_EQ(assert_with(request(5)), 0U);
    EXPECT_EQ(seen.new_counter, 5U);
    EXPECT_EQ(log.lines(), lines{"ERROR IAV - Assertion failed"});
}

TEST_F(IosAssertion, WithoutAllThreeCallbacksFailsInSilence)
{
    const test_bytes object = phone.assert_request(request(5), hash);
    ios_app_validator_callbacks no_read = callbacks;
    no_read.read_pub_key = nullptr;
    ios_app_validator_callbacks no_set = callbacks;
    no_set.set_counter = nullptr;
    ios_app_validator_callbacks no_get = callbacks;
    no_get.get_counter = nullptr;
    const ios_app_validator_callbacks *tables[] = {&no_read, &no_set, &no_get, nullptr};
    for (const ios_app_validator_callbacks *table : tables) {
        iav = ios_app_validator_new(app_id, table, &seen);
        EXPECT_EQ(assert_with(object), 0U);
        EXPECT_EQ(log.lines(), lines{});
    }
    ios_app_validator_callbacks no_write = callbacks;
    no_write.write_pub_key = nullptr;
    iav = ios_app_validator_new(app_id, &no_write, &seen);
    EXPECT_EQ(assert_with(object), 1U);
}

TEST_F(IosAssertion, WithoutAnArgumentFailsInSilence)
{
    const test_bytes object = phone.assert_request(request(5), hash);
    EXPECT_EQ(ios_app_validate_assertion(nullptr, object, hash), 0U);
    EXPECT_EQ(ios_app_validate_assertion(iav.get(), {}, hash), 0U);
    EXPECT_EQ(ios_app_validate_assertion(iav.get(), object, {}), 0U);
    EXPECT_EQ(log.lines(), lines{});
}

TEST_F(IosAssertion, WithAClientDataHashOfAnotherLengthFailsInSilence)
{
    for (const std::size_t length : {std::size_t{31}, std::size_t{33}}) {
        hash = test_bytes(length, 0x5a);
        EXPECT_EQ(assert_with(request(5)), 0U);
        EXPECT_EQ(log.lines(), lines{});
    }
    hash = test_bytes(32, 0x5a);
    EXPECT_EQ(assert_with(request(5)), 1U);
}

TEST_F(IosAssertion, ThatIsNoCborCannotBeDecoded)
{
    EXPECT_EQ(assert_with({0xff}), 0U);
    expect_assertion_refused("Cannot decode CBOR");
    const std::uint8_t byte = 0;
    log.clear();
    EXPECT_EQ(ios_app_validate_assertion(iav.get(), {&byte, 0}, hash), 0U);
    expect_assertion_refused("Cannot decode CBOR");
}

TEST_F(IosAssertion, OfAnotherShapeIsNoAssertionObject)
{
    EXPECT_EQ(assert_with(cbor_make_map({})), 0U);
    expect_assertion_refused("Cannot create assertion obj");
    EXPECT_EQ(assert_with(assertion_encode({}, request(5).assertion())), 0U);
    expect_assertion_refused("Cannot create assertion obj");
    EXPECT_EQ(assert_with(assertion_encode(test_bytes(4097), request(5).assertion())), 0U);
    expect_assertion_refused("Cannot create assertion obj");
}

TEST_F(IosAssertion, WithShortAuthenticatorDataHasNone)
{
    EXPECT_EQ(assert_with(assertion_encode({1}, test_bytes(36))), 0U);
    expect_assertion_refused("Cannot extract auth data");
}

TEST_F(IosAssertion, WithoutAStoredKeyFailsWithoutAReason)
{
    seen.key.reset();
    EXPECT_EQ(assert_with(request(5)), 0U);
    EXPECT_EQ(log.lines(), lines{"ERROR IAV - Assertion failed"});
}

TEST_F(IosAssertion, WithAKeyThatCannotBeLoadedHasAnInvalidSignature)
{
    for (const test_bytes &key : {test_bytes{}, bytes_of("no key")}) {
        seen.key = key;
        EXPECT_EQ(assert_with(request(5)), 0U);
        EXPECT_EQ(log.lines(),
                  (lines{"DEBUG IAV - Cannot load pub key", "DEBUG IAV - Invalid signature",
                         "ERROR IAV - Assertion failed"}));
    }
}

TEST_F(IosAssertion, OfAnotherKeyHasAnInvalidSignature)
{
    seen.key = public_key_der(ec_key_make(NID_X9_62_prime256v1).get());
    EXPECT_EQ(assert_with(request(5)), 0U);
    EXPECT_EQ(log.lines(),
              (lines{"DEBUG IAV - Verify unsuccessful", "DEBUG IAV - Invalid signature",
                     "ERROR IAV - Assertion failed"}));
}

TEST_F(IosAssertion, ThatSignsTheDataInsteadOfTheNonceHasAnInvalidSignature)
{
    const test_bytes data = request(5).assertion();
    const test_bytes message = bytes_joined({data, hash});
    EXPECT_EQ(assert_with(assertion_encode(ecdsa_sign(phone.key.get(), message), data)), 0U);
    EXPECT_TRUE(log.has("DEBUG IAV - Invalid signature"));
}

TEST_F(IosAssertion, ForAnotherClientDataHashHasAnInvalidSignature)
{
    const test_bytes object = phone.assert_request(request(5), hash);
    hash.front() ^= 1;
    EXPECT_EQ(assert_with(object), 0U);
    EXPECT_TRUE(log.has("DEBUG IAV - Invalid signature"));
}

TEST_F(IosAssertion, OfAnotherAppMismatches)
{
    auth_data_wish wish = request(5);
    wish.rp_id_hash = sha256_of(bytes_of("another app"));
    EXPECT_EQ(assert_with(wish), 0U);
    expect_assertion_refused("AppId mismatch");
}

TEST_F(IosAssertion, WithAnUnknownStoredCounterFailsWithoutAReason)
{
    seen.stored_counter = 0xffffffff;
    EXPECT_EQ(assert_with(request(5)), 0U);
    EXPECT_EQ(log.lines(), lines{"ERROR IAV - Assertion failed"});
    EXPECT_EQ(seen.new_counter, std::nullopt);
}

struct counter_case {
    const char *name;
    std::uint32_t stored, sent;
    bool accepted;
};

class IosAssertionCounter : public IosAssertion,
                            public testing::WithParamInterface<counter_case> {};

TEST_P(IosAssertionCounter, MustGrow)
{
    seen.stored_counter = GetParam().stored;
    EXPECT_EQ(assert_with(request(GetParam().sent)), GetParam().accepted ? 1U : 0U);
    if (!GetParam().accepted) {
        expect_assertion_refused("Invalid counter");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Counters, IosAssertionCounter,
    testing::Values(counter_case{"ZeroAfterZero", 0, 0, false},
                    counter_case{"OneAfterZero", 0, 1, true},
                    counter_case{"EqualToTheStored", 5, 5, false},
                    counter_case{"BelowTheStored", 5, 4, false},
                    counter_case{"NextAfterTheStored", 5, 6, true},
                    counter_case{"AcrossTheSignBit", 0x7fffffff, 0x80000000, true},
                    counter_case{"BackAcrossTheSignBit", 0x80000000, 0x7fffffff, false},
                    counter_case{"TheLastOne", 0xfffffffe, 0xffffffff, true}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(IosAssertion, ReportsTheFirstOfItsFaults)
{
    seen.key = bytes_of("no key");
    seen.stored_counter = 7;
    auth_data_wish wish = request(7);
    wish.rp_id_hash = test_bytes(32);
    EXPECT_EQ(assert_with(wish), 0U);
    EXPECT_EQ(log.lines().front(), "DEBUG IAV - Cannot load pub key");
    seen.key = public_key_der(phone.key.get());
    EXPECT_EQ(assert_with(wish), 0U);
    expect_assertion_refused("AppId mismatch");
    wish.rp_id_hash = phone.auth_data().rp_id_hash;
    EXPECT_EQ(assert_with(wish), 0U);
    expect_assertion_refused("Invalid counter");
    wish.counter = 8;
    EXPECT_EQ(assert_with(wish), 1U);
}

TEST_F(IosAssertion, IgnoresWhatStandsBehindTheObject)
{
    EXPECT_EQ(assert_with(bytes_joined({phone.assert_request(request(5), hash), {0x00, 0xff}})),
              1U);
    auth_data_wish wish = request(6);
    wish.rp_id_hash = phone.auth_data().rp_id_hash;
    const test_bytes data = bytes_joined({wish.assertion(), test_bytes(40, 0xee)});
    const test_bytes nonce = sha256_of(bytes_joined({data, hash}));
    EXPECT_EQ(assert_with(assertion_encode(ecdsa_sign(phone.key.get(), nonce), data)), 1U);
}

TEST(IosValidator, NeedsAnAppId)
{
    EXPECT_EQ(ios_app_validator_new(nullptr, &callbacks, nullptr), nullptr);
    EXPECT_EQ(ios_app_validator_new("", &callbacks, nullptr), nullptr);
    EXPECT_NE(ios_app_validator_new("x", &callbacks, nullptr), nullptr);
}

TEST(IosValidator, CopiesAppIdAndRoot)
{
    fake_clock_set(app_attest_maker_now);
    recorder seen;
    const app_attest_phone phone{app_id};
    std::string id = app_id;
    const ios_app_validator_ptr iav = ios_app_validator_new(id.c_str(), &callbacks, &seen);
    std::fill(id.begin(), id.end(), 'x');
    std::string pem = certificate_pem(phone.root.certificate.get());
    EXPECT_EQ(ios_app_validator_set_root_ca(iav.get(), pem.c_str()), 1);
    std::fill(pem.begin(), pem.end(), 'x');
    const test_bytes hash(32);
    EXPECT_EQ(ios_app_validate_attestation(iav.get(),
                                           phone.attest(phone.auth_data(), hash).encode(), hash),
              1U);
    fake_clock_reset();
}

TEST(IosValidator, GivesTheUserDataBack)
{
    int data = 0;
    const ios_app_validator_ptr iav = ios_app_validator_new("x", &callbacks, &data);
    EXPECT_EQ(ios_app_validator_get_user_data(iav.get()), &data);
    ios_app_validator_free(nullptr);
}

} // namespace
