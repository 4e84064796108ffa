#include "ios_validation/ios_app_validate.h"

#include <openssl/err.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>

#include "crypto/sha256.h"
#include "handles/argument.h"
#include "ios_validation/apple_root_ca.h"
#include "ios_validation/auth_data.h"
#include "ios_validation/cbor.h"
#include "ios_validation/certificate.h"
#include "ios_validation/objects.h"
#include "ios_validation/signature.h"
#include "logger/common_logger.h"
#include "story/reason.h"

struct ios_app_validator {
    const ios_app_validator_callbacks *callbacks = nullptr;
    void *user_data = nullptr;
    std::string app_id;
    std::string root_ca; // PEM; empty: Apple's
    std::uint8_t allow_develop = 0;
};

namespace {

constexpr char log_category[] = "IAV";

using bytes_view = std::span<const std::uint8_t>;
using digest = sha256_digest;
using aaguid = std::array<std::uint8_t, 16>;

constexpr aaguid production_aaguid = {'a', 'p', 'p', 'a', 't', 't', 'e', 's', 't'};
constexpr aaguid develop_aaguid = {'a', 'p', 'p', 'a', 't', 't', 'e', 's',
                                   't', 'd', 'e', 'v', 'e', 'l', 'o', 'p'};

bool is_digest_of(const digest &expected, bytes_view bytes)
{
    return sha256(bytes) == expected;
}

bool app_id_matches(const ios_app_validator &iav, const ios_auth_data &auth_data)
{
    return is_digest_of(
        auth_data.rp_id_hash,
        {reinterpret_cast<const std::uint8_t *>(iav.app_id.data()), iav.app_id.size()});
}

bool aaguid_allowed(const ios_app_validator &iav, const aaguid &id)
{
    return id == production_aaguid || (iav.allow_develop != 0 && id == develop_aaguid);
}

std::optional<cbor_item_ptr> cbor_read(bytes_view bytes)
{
    auto cbor = ios_app_cbor_decode(bytes);
    if (!cbor.has_value()) {
        LOG_DEBUG("Cannot decode CBOR");
        story_reason_set("it is no CBOR");
    }
    return cbor;
}

std::optional<ios_attestation_obj> attestation_read(bytes_view attestation)
{
    const auto cbor = cbor_read(attestation);
    if (!cbor.has_value()) {
        return std::nullopt;
    }
    auto object = ios_attestation_obj_create(cbor->get());
    if (!object.has_value()) {
        LOG_DEBUG("Cannot create attestation obj");
        story_reason_set("it is no attestation object");
    }
    return object;
}

std::optional<ios_assertion_obj> assertion_read(bytes_view assertion)
{
    const auto cbor = cbor_read(assertion);
    if (!cbor.has_value()) {
        return std::nullopt;
    }
    auto object = ios_assertion_obj_create(cbor->get());
    if (!object.has_value()) {
        LOG_DEBUG("Cannot create assertion obj");
        story_reason_set("it is no assertion object");
    }
    return object;
}

std::optional<ios_auth_data> auth_data_read(bytes_view bytes, ios_auth_data_mode mode)
{
    const auto auth_data = ios_auth_data_parse(bytes, mode);
    if (!auth_data.has_value()) {
        LOG_DEBUG("Cannot extract auth data");
        story_reason_set("its authenticator data is cut short");
    }
    return auth_data;
}

x509_ptr certificate_read(const ios_app_validator &iav, const ios_attestation_obj &object)
{
    const char *root = iav.root_ca.empty() ? apple_root_ca_pem : iav.root_ca.c_str();
    x509_ptr certificate = ios_app_certificate_verify(root, object.credential_certificate,
                                                      object.intermediate_certificate);
    if (certificate == nullptr) {
        LOG_DEBUG("Invalid ca chain");
        story_reason_set("its certificates do not lead to the root");
    }
    return certificate;
}

/// The certificate was made for this authenticator data and this challenge.
bool nonce_check(const X509 *certificate, bytes_view auth_data, bytes_view client_data_hash)
{
    const auto nonce = sha256(auth_data, client_data_hash);
    if (!nonce.has_value()) {
        return false;
    }
    const bytes_view extension = ios_app_certificate_nonce_extension(certificate);
    if (extension.empty()) {
        LOG_DEBUG("Cannot extract OID");
        story_reason_set("its certificate has no nonce");
        return false;
    }
    if (extension.size() < nonce->size() ||
        !std::ranges::equal(extension.last(nonce->size()), *nonce)) {
        LOG_DEBUG("OID mismatch");
        story_reason_set("it was made for another request");
        return false;
    }
    return true;
}

std::optional<ios_app_public_key> public_key_read(const X509 *certificate)
{
    auto key = ios_app_certificate_public_key(certificate);
    if (!key.has_value()) {
        LOG_DEBUG("Cannot extract pub key");
        story_reason_set("its certificate has no usable key");
    }
    return key;
}

bool attestation_auth_data_check(const ios_app_validator &iav, const ios_auth_data &auth_data,
                                 bytes_view point)
{
    if (!app_id_matches(iav, auth_data)) {
        LOG_DEBUG("AppId mismatch");
        story_reason_set("it is of another app than app.ios.appid");
        return false;
    }
    if (auth_data.counter != 0) {
        LOG_DEBUG("Invalid counter");
        story_reason_set("its counter is wrong");
        return false;
    }
    if (!aaguid_allowed(iav, auth_data.aaguid)) {
        LOG_DEBUG("Aaguid mismatch");
        story_reason_set("it is of another environment of App Attest");
        return false;
    }
    if (!is_digest_of(auth_data.credential_id, point)) {
        LOG_DEBUG("Invalid credential id");
        story_reason_set("its key id does not fit its key");
        return false;
    }
    return true;
}

unsigned public_key_hand_over(ios_app_validator &iav, const ios_app_public_key &key)
{
    if (iav.callbacks == nullptr || iav.callbacks->write_pub_key == nullptr) {
        return 1;
    }
    return iav.callbacks->write_pub_key(&iav, {key.der.get(), key.der_length});
}

unsigned attestation_check(ios_app_validator *iav, bytes_view attestation,
                           bytes_view client_data_hash)
{
    if (iav == nullptr || attestation.empty() || client_data_hash.empty()) {
        return 0;
    }
    const auto object = attestation_read(attestation);
    if (!object.has_value()) {
        return 0;
    }
    const auto auth_data = auth_data_read(object->auth_data, ios_auth_data_mode::attestation);
    if (!auth_data.has_value()) {
        return 0;
    }
    const x509_ptr certificate = certificate_read(*iav, *object);
    if (certificate == nullptr ||
        !nonce_check(certificate.get(), object->auth_data, client_data_hash)) {
        return 0;
    }
    const auto key = public_key_read(certificate.get());
    if (!key.has_value() || !attestation_auth_data_check(*iav, *auth_data, key->point)) {
        return 0;
    }
    return public_key_hand_over(*iav, *key);
}

/// Without key and counters nothing can be asserted; such a call is refused in silence.
bool assertion_can_be_checked(const ios_app_validator *iav, bytes_view assertion,
                              bytes_view client_data_hash)
{
    return iav != nullptr && iav->callbacks != nullptr && iav->callbacks->read_pub_key != nullptr &&
           iav->callbacks->get_counter != nullptr && iav->callbacks->set_counter != nullptr &&
           assertion.data() != nullptr && client_data_hash.size() == std::tuple_size_v<digest>;
}

bool assertion_signature_check(ios_app_validator &iav, const ios_assertion_obj &object,
                               bytes_view client_data_hash)
{
    const auto nonce = sha256(object.authenticator_data, client_data_hash);
    if (!nonce.has_value()) {
        return false;
    }
    const auto key = iav.callbacks->read_pub_key(&iav);
    // The nonce is the message, so the verification hashes it once more.
    return key.has_value() && ios_app_signature_verify(*key, *nonce, object.signature);
}

bool counter_check(ios_app_validator &iav, std::uint32_t counter)
{
    const std::uint32_t stored = iav.callbacks->get_counter(&iav);
    if (stored == ios_app_counter_unknown) {
        return false;
    }
    if (counter <= stored) {
        LOG_DEBUG("Invalid counter");
        story_reason_set("its counter is wrong");
        return false;
    }
    return true;
}

unsigned assertion_check(ios_app_validator &iav, bytes_view assertion, bytes_view client_data_hash)
{
    const auto object = assertion_read(assertion);
    if (!object.has_value()) {
        return 0;
    }
    const auto auth_data =
        auth_data_read(object->authenticator_data, ios_auth_data_mode::assertion);
    if (!auth_data.has_value() || !assertion_signature_check(iav, *object, client_data_hash)) {
        return 0;
    }
    if (!app_id_matches(iav, *auth_data)) {
        LOG_DEBUG("AppId mismatch");
        story_reason_set("it is of another app than app.ios.appid");
        return 0;
    }
    if (!counter_check(iav, auth_data->counter)) {
        return 0;
    }
    return iav.callbacks->set_counter(&iav, auth_data->counter);
}

} // namespace

void ios_app_validator_free(ios_app_validator *validator)
{
    const std::unique_ptr<ios_app_validator> owned{validator};
}

ios_app_validator_ptr ios_app_validator_new(const char *app_id,
                                            const ios_app_validator_callbacks *callbacks,
                                            void *user_data)
{
    if (app_id == nullptr || *app_id == '\0') {
        return nullptr;
    }
    ios_app_validator_ptr validator{release_new<ios_app_validator>()};
    validator->callbacks = callbacks;
    validator->user_data = user_data;
    validator->app_id = app_id;
    return validator;
}

void ios_app_validator_set_develop(ios_app_validator *validator, std::uint8_t allow)
{
    validator->allow_develop = allow;
}

int ios_app_validator_set_root_ca(ios_app_validator *validator, const char *pem)
{
    validator->root_ca = pem != nullptr ? pem : "";
    return 1;
}

void *ios_app_validator_get_user_data(const ios_app_validator *validator)
{
    return validator->user_data;
}

unsigned ios_app_validate_attestation(ios_app_validator *validator,
                                      std::span<const std::uint8_t> attestation,
                                      std::span<const std::uint8_t> client_data_hash)
{
    const unsigned result = attestation_check(validator, attestation, client_data_hash);
    ERR_clear_error(); // what a refused certificate leaves there would spoil others' messages
    if (result == 0) {
        LOG_ERROR("Attestation failed");
    } else {
        LOG_TRACE("Attestation success");
    }
    return result;
}

unsigned ios_app_validate_assertion(ios_app_validator *validator,
                                    std::span<const std::uint8_t> assertion,
                                    std::span<const std::uint8_t> client_data_hash)
{
    if (!assertion_can_be_checked(validator, assertion, client_data_hash)) {
        return 0;
    }
    const unsigned result = assertion_check(*validator, assertion, client_data_hash);
    ERR_clear_error();
    if (result == 0) {
        LOG_ERROR("Assertion failed");
    } else {
        LOG_TRACE("Assertion success");
    }
    return result;
}
