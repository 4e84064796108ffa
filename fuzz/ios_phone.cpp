#include "ios_phone.h"

#include <algorithm>

#include "trusted_chain.h"

namespace {

using asn1_octets_ptr = handle<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>;

ios_outcome &outcome_of(ios_app_validator *validator)
{
    return *static_cast<ios_outcome *>(ios_app_validator_get_user_data(validator));
}

constexpr ios_app_validator_callbacks callbacks{
    [](ios_app_validator *validator, std::span<const std::uint8_t> der) {
        outcome_of(validator).keys.emplace_back(der.begin(), der.end());
        return 1U;
    },
    [](ios_app_validator *validator) { return outcome_of(validator).key; },
    [](ios_app_validator *validator, std::uint32_t counter) {
        outcome_of(validator).counters.push_back(counter);
        return 1U;
    },
    [](ios_app_validator *validator) { return outcome_of(validator).stored; },
};

ios_app_validator_ptr validator_make(const char *app_id, ios_outcome *outcome)
{
    ios_app_validator_ptr validator = ios_app_validator_new(app_id, &callbacks, outcome);
    FUZZ_REQUIRE(validator != nullptr);
    return validator;
}

x509_ptr credential_make(const app_attest_phone &phone)
{
    // Signed by its own key, which is quicker than the authority's.
    certificate_wish wish{"Test Credential", phone.key.get(), phone.intermediate.certificate.get(),
                          phone.key.get()};
    wish.nonce_extension = nonce_extension_value(test_bytes(32));
    return certificate_make(wish);
}

/// A good object hands its result over once, a refused one never.
void is_consistent(unsigned result, std::size_t handed_over)
{
    FUZZ_REQUIRE(result <= 1 && handed_over == result);
}

} // namespace

ios_phone::ios_phone()
    : root_pem_{certificate_pem(phone.root.certificate.get())},
      intermediate_{certificate_der(phone.intermediate.certificate.get())},
      credential_{credential_make(phone)}, leaf_{certificate_der(credential_.get())}
{
    X509_up_ref(phone.root.certificate.get());
    trusted_chain_install(x509_ptr{phone.root.certificate.get()});
}

ios_outcome ios_phone::attest(const char *app_id, fuzz_bytes object, fuzz_bytes client_hash) const
{
    ios_outcome outcome;
    const ios_app_validator_ptr validator = validator_make(app_id, &outcome);
    ios_app_validator_set_develop(validator.get(), 1);
    FUZZ_REQUIRE(ios_app_validator_set_root_ca(validator.get(), root_pem_.c_str()) == 1);
    outcome.result = ios_app_validate_attestation(validator.get(), object, client_hash);
    is_consistent(outcome.result, outcome.keys.size());
    return outcome;
}

ios_outcome ios_phone::check_assertion(const test_bytes &key, std::uint32_t stored,
                                       fuzz_bytes object, fuzz_bytes client_hash) const
{
    ios_outcome outcome;
    outcome.key = key;
    outcome.stored = stored;
    const ios_app_validator_ptr validator = validator_make(phone.app_id.c_str(), &outcome);
    outcome.result = ios_app_validate_assertion(validator.get(), object, client_hash);
    is_consistent(outcome.result, outcome.counters.size());
    return outcome;
}

X509 *ios_phone::credential(const test_bytes &extension) const
{
    X509 *const certificate = credential_.get();
    const int index = X509_get_ext_count(certificate) - 1;
    const asn1_octets_ptr value{ASN1_OCTET_STRING_new()};
    FUZZ_REQUIRE(ASN1_OCTET_STRING_set(value.get(), extension.data(),
                                       static_cast<int>(extension.size())) == 1);
    FUZZ_REQUIRE(X509_EXTENSION_set_data(X509_get_ext(certificate, index), value.get()) == 1);
    return certificate;
}

test_bytes ios_phone::leaf(const test_bytes &extension) const
{
    // With the signature of another value: nobody looks, and signing would take longer than all else.
    X509 *const certificate = credential(extension);
    FUZZ_REQUIRE(i2d_re_X509_tbs(certificate, nullptr) > 0); // what was encoded before is not valid
    return certificate_der(certificate);
}

test_bytes ios_phone::leaf_with_nonce(const test_bytes &nonce) const
{
    test_bytes result = leaf_;
    const test_bytes zeros(nonce.size());
    std::ranges::copy(nonce, std::search(result.begin(), result.end(), zeros.begin(), zeros.end()));
    return result;
}

const test_bytes &ios_phone::intermediate() const
{
    return intermediate_;
}

const ios_phone &the_ios_phone()
{
    static const ios_phone made;
    return made;
}
