#include "ios_validation/objects.h"

#include <utility>

#include "ios_validation/cbor.h"

namespace {

constexpr std::string_view attestation_format = "apple-appattest";
constexpr std::size_t attestation_pairs = 3;
constexpr std::size_t statement_pairs = 2;
constexpr std::size_t assertion_pairs = 2;
constexpr std::size_t certificates = 2;

/// What the maps hold beside the members that are kept.
struct attestation_reading {
    ios_attestation_obj object;
    bool has_format = false;
    bool has_receipt = false;
};

/// A member that is only looked for: true the first time, when its value is good.
bool note_member(bool &has_member, bool value_is_good)
{
    if (has_member || !value_is_good) {
        return false;
    }
    has_member = true;
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
    auto &reading = *static_cast<attestation_reading *>(target);
    if (key == "x5c") {
        return certificates_read(value, reading.object);
    }
    if (key == "receipt") {
        return note_member(reading.has_receipt, ios_app_cbor_bytes(value).has_value());
    }
    return false;
}

bool attestation_key_handler(void *target, std::string_view key, const cbor_item_t *value)
{
    auto &reading = *static_cast<attestation_reading *>(target);
    if (key == "fmt") {
        return note_member(reading.has_format, ios_app_cbor_text(value) == attestation_format);
    }
    if (key == "attStmt") {
        return ios_app_cbor_read_map(value, statement_pairs, &reading, statement_key_handler);
    }
    if (key == "authData") {
        return ios_app_cbor_read_bytes(value, reading.object.auth_data);
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
    attestation_reading reading;
    if (!ios_app_cbor_read_map(item, attestation_pairs, &reading, attestation_key_handler)) {
        return std::nullopt;
    }
    ios_attestation_obj &object = reading.object;
    const bool complete = reading.has_format && !object.credential_certificate.empty() &&
                          !object.intermediate_certificate.empty() && reading.has_receipt &&
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
