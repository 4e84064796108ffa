#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "crypto/common_crypto.h"
#include "fakes/app_attest_samples.h"
#include "fakes/fake_clock.h"
#include "handles/openssl.h"
#include "ios_validation/apple_root_ca.h"
#include "ios_validation/cbor.h"
#include "ios_validation/ios_app_validate.h"
#include "ios_validation/objects.h"

/// What an iPhone's objects cost beside the signatures in them: a real attestation is two P-384
/// verifications and an assertion one P-256 verification, with keys that are loaded already.

namespace {

constexpr char sample_name[] = "ios-14.4";

/// As the daemon keeps it in a pairing: base64 text, decoded for each assertion.
struct stored_key {
    std::string base64;
};

stored_key &key_of(const ios_app_validator *iav)
{
    return *static_cast<stored_key *>(ios_app_validator_get_user_data(iav));
}

constexpr ios_app_validator_callbacks callbacks = {
    [](ios_app_validator *iav, std::span<const std::uint8_t> der) {
        key_of(iav).base64 = common_crypto_base64_encode(der).value_or("");
        return 1U;
    },
    [](ios_app_validator *iav) { return common_crypto_base64_decode(key_of(iav).base64); },
    [](ios_app_validator *, std::uint32_t) { return 1U; },
    [](ios_app_validator *) { return std::uint32_t{0}; }};

/// One signature to verify: key, message, signature.
struct signed_message {
    evp_pkey_ptr key;
    test_bytes message;
    test_bytes signature;
    const EVP_MD *digest;

    [[nodiscard]] bool verify() const
    {
        const evp_md_ctx_ptr context{EVP_MD_CTX_new()};
        return EVP_DigestVerifyInit(context.get(), nullptr, digest, nullptr, key.get()) == 1 &&
               EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                                message.size()) == 1;
    }
};

evp_pkey_ptr key_shared(EVP_PKEY *key)
{
    EVP_PKEY_up_ref(key);
    return evp_pkey_ptr{key};
}

x509_ptr certificate_of(std::span<const std::uint8_t> der)
{
    const std::uint8_t *at = der.data();
    return x509_ptr{d2i_X509(nullptr, &at, static_cast<long>(der.size()))};
}

/// The signature that an issuer put on a certificate.
signed_message certificate_signature(const X509 *issuer, X509 *subject)
{
    const ASN1_BIT_STRING *signature = nullptr;
    const X509_ALGOR *algorithm = nullptr;
    X509_get0_signature(&signature, &algorithm, subject);
    unsigned char *text = nullptr;
    const int length = i2d_re_X509_tbs(subject, &text);
    const openssl_bytes owned{text};
    int digest_nid = NID_undef;
    OBJ_find_sigid_algs(OBJ_obj2nid(algorithm->algorithm), &digest_nid, nullptr);
    const unsigned char *data = ASN1_STRING_get0_data(signature);
    return {key_shared(X509_get0_pubkey(issuer)), test_bytes(text, text + length),
            test_bytes(data, data + ASN1_STRING_length(signature)),
            EVP_get_digestbynid(digest_nid)};
}

std::array<signed_message, 2> chain_signatures(const app_attest_sample &sample)
{
    const auto cbor = ios_app_cbor_decode(sample.attestation);
    const auto object = ios_attestation_obj_create(cbor->get());
    const x509_ptr leaf = certificate_of(object->credential_certificate);
    const x509_ptr intermediate = certificate_of(object->intermediate_certificate);
    const bio_ptr bio{BIO_new_mem_buf(apple_root_ca_pem, -1)};
    const x509_ptr root{PEM_read_bio_X509(bio.get(), nullptr, openssl_no_passphrase, nullptr)};
    return {certificate_signature(root.get(), intermediate.get()),
            certificate_signature(intermediate.get(), leaf.get())};
}

signed_message assertion_signature(const app_attest_sample &sample)
{
    const auto cbor = ios_app_cbor_decode(sample.assertion->object);
    const auto object = ios_assertion_obj_create(cbor->get());
    const auto &signature = object->signature;
    const auto &data = object->authenticator_data;
    test_bytes joined{data.begin(), data.end()};
    joined.insert(joined.end(), sample.assertion->client_data_hash.begin(),
                  sample.assertion->client_data_hash.end());
    const auto nonce = common_crypto_sha256(joined);
    const std::uint8_t *at = sample.public_key.data();
    return {evp_pkey_ptr{d2i_PUBKEY(nullptr, &at, static_cast<long>(sample.public_key.size()))},
            test_bytes(nonce->begin(), nonce->end()),
            test_bytes(signature.begin(), signature.end()), EVP_sha256()};
}

/// A validator for one call, as the daemon makes it.
ios_app_validator_ptr validator_make(const app_attest_sample &sample, stored_key &key)
{
    auto iav = ios_app_validator_new(sample.app_id.c_str(), &callbacks, &key);
    ios_app_validator_set_develop(iav.get(), 1);
    return iav;
}

void attest_velmd(benchmark::State &state)
{
    const app_attest_sample sample = app_attest_sample_load(sample_name);
    fake_clock_set(sample.verify_at);
    for (auto _ : state) {
        stored_key key;
        const auto iav = validator_make(sample, key);
        if (ios_app_validate_attestation(iav.get(), sample.attestation, sample.client_data_hash) ==
                0 ||
            key.base64.empty()) {
            state.SkipWithError("refused");
            break;
        }
    }
    fake_clock_reset();
}

void attest_bare(benchmark::State &state)
{
    const app_attest_sample sample = app_attest_sample_load(sample_name);
    const auto signatures = chain_signatures(sample);
    for (auto _ : state) {
        if (!signatures[0].verify() || !signatures[1].verify()) {
            state.SkipWithError("refused");
            break;
        }
    }
}

void assert_velmd(benchmark::State &state)
{
    const app_attest_sample sample = app_attest_sample_load(sample_name);
    const std::string base64 = *common_crypto_base64_encode(sample.public_key);
    for (auto _ : state) {
        stored_key key{base64};
        const auto iav = validator_make(sample, key);
        if (ios_app_validate_assertion(iav.get(), sample.assertion->object,
                                       sample.assertion->client_data_hash) == 0) {
            state.SkipWithError("refused");
            break;
        }
    }
}

void assert_bare(benchmark::State &state)
{
    const app_attest_sample sample = app_attest_sample_load(sample_name);
    const signed_message signature = assertion_signature(sample);
    for (auto _ : state) {
        if (!signature.verify()) {
            state.SkipWithError("refused");
            break;
        }
    }
}

BENCHMARK(attest_velmd)->Name("attest/velmd");
BENCHMARK(attest_bare)->Name("attest/bare");
BENCHMARK(assert_velmd)->Name("assert/velmd");
BENCHMARK(assert_bare)->Name("assert/bare");

} // namespace
