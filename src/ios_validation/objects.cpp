#include "ios_validation/objects.h"

#include <algorithm>

#include "handles/malloc.h"
#include "ios_validation/cbor.h"

namespace {

constexpr std::string_view attestation_format = "apple-appattest";
constexpr std::size_t attestation_pairs = 3;
constexpr std::size_t statement_pairs = 2;
constexpr std::size_t assertion_pairs = 2;
constexpr std::size_t certificates = 2;

bool format_read(const cbor_item_t *value, plain_ptr<char> &slot)
{
    if (slot != nullptr || ios_app_cbor_text(value) != attestation_format) {
        return false;
    }
    slot = try_make_plain<char>(attestation_format.size() + 1);
    if (slot == nullptr) {
        return false;
    }
    std::copy(attestation_format.begin(), attestation_format.end(), slot.get());
    return true;
}

bool certificates_read(const cbor_item_t *value, ios_attestation_obj &object)
{
    if (!cbor_isa_array(value) || cbor_array_size(value) != certificates) {
        return false;
    }
    cbor_item_t *const *const items = cbor_array_handle(value);
    return ios_app_cbor_read_bytes(items[0], object.credential_certificate) &&
           ios_app_cbor_read_bytes(items[1], object.intermediate_certificate);
}

bool statement_key_handler(void *target, std::string_view key, const cbor_item_t *value)
{
    auto &object = *static_cast<ios_attestation_obj *>(target);
    if (key == "x5c") {
        return certificates_read(value, object);
    }
    if (key == "receipt") {
        return ios_app_cbor_read_bytes(value, object.receipt);
    }
    return false;
}

bool attestation_key_handler(void *target, std::string_view key, const cbor_item_t *value)
{
    auto &object = *static_cast<ios_attestation_obj *>(target);
    if (key == "fmt") {
        return format_read(value, object.fmt);
    }
    if (key == "attStmt") {
        return ios_app_cbor_read_map(value, statement_pairs, &object, statement_key_handler);
    }
    if (key == "authData") {
        return ios_app_cbor_read_bytes(value, object.auth_data);
    }
    return false;
}

bool assertion_key_handler(void *target, std::string_view key, const cbor_item_t *value)
{
    auto &object = *static_cast<ios_assertion_obj *>(target);
    if (key == "signature") {
        return ios_app_cbor_read_bytes(value, object.signature);
    }
    if (key == "authenticatorData") {
        return ios_app_cbor_read_bytes(value, object.authenticator_data);
    }
    return false;
}

} // namespace

std::optional<ios_attestation_obj> ios_attestation_obj_create(const cbor_item_t *item)
{
    ios_attestation_obj object;
    if (!ios_app_cbor_read_map(item, attestation_pairs, &object, attestation_key_handler)) {
        return std::nullopt;
    }
    const bool complete = object.fmt != nullptr && !object.credential_certificate.empty() &&
                          !object.intermediate_certificate.empty() && !object.receipt.empty() &&
                          !object.auth_data.empty();
    return complete ? std::optional{std::move(object)} : std::nullopt;
}

std::optional<ios_assertion_obj> ios_assertion_obj_create(const cbor_item_t *item)
{
    ios_assertion_obj object;
    if (!ios_app_cbor_read_map(item, assertion_pairs, &object, assertion_key_handler)) {
        return std::nullopt;
    }
    const bool complete = !object.signature.empty() && !object.authenticator_data.empty();
    return complete ? std::optional{std::move(object)} : std::nullopt;
}
