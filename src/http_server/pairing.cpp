#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "crypto/common_crypto.h"
#include "handles/secret.h"
#include "http_server/answer.h"
#include "http_server/log.h"
#include "http_server/routes.h"
#include "logger/fatal.h"
#include "request/input.h"
#include "story/reason.h"
#include "text/or_empty.h"
#include "velm_attestation_engine.h"
#include "velm_challenge_engine.h"
#include "velm_nvram_pairings.h"
#include "velm_utils.h"

/// What /pair, /pairings and /unpair do once every check has passed. Nothing is stored before every
/// step has passed.

namespace {

constexpr char pair_name[] = "http_method_pair_handle";
constexpr char unpair_name[] = "http_method_unpair_handle";

/// Borrowed from the request and its parsed body.
struct attestation_input {
    const char *device_id;
    const char *challenge;
    const char *attestation;
};

/// The reason for the log; null when all of it can be used.
const char *attestation_input_refusal(const attestation_input &input)
{
    if (!request_text_fits(input.attestation, request_header_limit)) {
        return "no valid X-Attestation";
    }
    if (!request_text_fits(input.device_id, request_id_limit)) {
        return "no valid deviceId";
    }
    return request_text_fits(input.challenge, request_id_limit) ? nullptr : "no valid challenge";
}

/// On success `attestation_key` holds the key to store for the device. The challenge is used up only by
/// an attestation that is valid.
http_outcome verify_attestation(const http_asked &asked, std::string *attestation_key)
{
    const attestation_input input{
        velm_utils_get_field_value_from_json_object(asked.auth, "deviceId"),
        velm_utils_get_field_value_from_json_object(asked.auth, "challenge"),
        request_header(asked.request, "X-Attestation")};
    const char *const refusal = attestation_input_refusal(input);
    if (refusal != nullptr) {
        return {http_status_bad_request, refusal};
    }
    LOG_TRACE("%s - device id:   %s", __func__, input.device_id);
    LOG_TRACE("%s - challenge:   %s", __func__, input.challenge);
    LOG_TRACE("%s - attestation: %s", __func__, input.attestation);
    std::string body = request_body_require(asked.request, __func__, "body_buf");
    const wiped_at_end wiping{&body}; // a password is in it
    const auto digest = common_crypto_sha256(request_bytes(body));
    if (!digest.has_value()) {
        return {http_status_internal_error, "no digest of the body"};
    }
    const auto attestation = common_crypto_base64_decode(input.attestation);
    if (!attestation.has_value()) {
        return {http_status_bad_request, "attestation is no base64"};
    }
    (void)story_reason_take();
    velm_attestation_result verdict =
        velm_attestation_engine_ios_verify_attestation(input.device_id, *attestation, *digest);
    if (!verdict.success) {
        LOG_ERROR("%s - failure (attestation)", __func__);
        return {.status = http_status_precondition_failed,
                .refusal = "attestation is not valid",
                .hint = story_reason_take().text};
    }
    if (velm_challenge_engine_consume_challenge(input.challenge) == 0) {
        LOG_ERROR("%s - failure (challenge)", __func__);
        return {.status = http_status_failed_dependency,
                .refusal = "challenge is not pending",
                .hint = story_reason_take().text};
    }
    LOG_TRACE("%s - success", __func__);
    *attestation_key = std::move(verdict.attestation_key);
    return {};
}

/// The member as an object; null without a usable one.
const cJSON *pair_object(const cJSON *body)
{
    const cJSON *const pair = cJSON_GetObjectItemCaseSensitive(body, "pair");
    if (pair == nullptr) {
        LOG_ERROR("%s - no pair data", pair_name);
        return nullptr;
    }
    if (!cJSON_IsObject(pair)) {
        LOG_ERROR("%s - invalid pair data", pair_name);
        return nullptr;
    }
    return pair;
}

const cJSON *unpair_object(const cJSON *body)
{
    const cJSON *const unpair = cJSON_GetObjectItemCaseSensitive(body, "unpair");
    if (unpair == nullptr) {
        LOG_ERROR("%s - no unpair data", unpair_name);
        return nullptr;
    }
    if (!cJSON_IsObject(unpair)) {
        LOG_ERROR("%s - invalid unpair data", unpair_name);
        return nullptr;
    }
    return unpair;
}

/// A member that may be left out counts as empty then.
const char *optional_text(const cJSON *object, const char *name)
{
    return text_or_empty(velm_utils_get_field_value_from_json_object(object, name));
}

bool optional_text_fits(const char *text, std::size_t limit)
{
    return *text == '\0' || request_text_fits(text, limit);
}

struct pair_texts {
    const char *name = nullptr;
    const char *push_token = nullptr;
    const char *dev_model = nullptr;
    const char *os_version = nullptr;
};

/// The members of "pair", in the order in which a wrong one is reported; gives the reason then, else
/// null.
const char *read_pair_texts(const cJSON *pair, pair_texts *read)
{
    pair_texts texts;
    texts.name = velm_utils_get_field_value_from_json_object(pair, "friendlyName");
    if (!request_text_fits(texts.name, request_name_limit)) {
        LOG_ERROR("%s - no friendly name", pair_name);
        return "no friendly name";
    }
    texts.push_token = velm_utils_get_field_value_from_json_object(pair, "pushToken");
    if (!request_text_fits(texts.push_token, request_push_token_limit)) {
        LOG_ERROR("%s - no push token", pair_name);
        return "no push token";
    }
    texts.dev_model = optional_text(pair, "deviceModel");
    if (!optional_text_fits(texts.dev_model, request_word_limit)) {
        LOG_ERROR("%s - invalid device model", pair_name);
        return "invalid device model";
    }
    texts.os_version = optional_text(pair, "osVersion");
    if (!optional_text_fits(texts.os_version, request_word_limit)) {
        LOG_ERROR("%s - invalid os version", pair_name);
        return "invalid os version";
    }
    *read = texts;
    return nullptr;
}

void fill_pairing(cJSON *pairing, const cJSON *auth, const pair_texts &texts)
{
    const auto set = velm_nvram_pairings_update_pairing_field;
    set(pairing, "dev_id", velm_utils_get_field_value_from_json_object(auth, "deviceId"));
    set(pairing, "dev_type", velm_utils_get_field_value_from_json_object(auth, "deviceType"));
    set(pairing, "name", texts.name);
    set(pairing, "push_token", texts.push_token);
    set(pairing, "dev_model", texts.dev_model);
    set(pairing, "os_version", texts.os_version);
}

/// Stores the phone's pairing. Without an attestation the stored key stays.
http_outcome store_pairing(const cJSON *auth, const cJSON *pair,
                           const std::optional<std::string> &attestation_key)
{
    json_ptr pairing = velm_nvram_pairings_select_pairing(
        velm_utils_get_field_value_from_json_object(auth, "deviceId"));
    const bool known = pairing != nullptr;
    if (!known && velm_nvram_pairings_limit_reached() != 0) {
        LOG_ERROR("%s - pairings limit reached", pair_name);
        return {http_status_forbidden, "pairings limit reached"};
    }
    if (!known) {
        pairing = velm_nvram_pairings_create_empty_pairing();
    }
    pair_texts texts;
    const char *const refusal = read_pair_texts(pair, &texts);
    if (refusal != nullptr) {
        return {http_status_bad_request, refusal};
    }
    fill_pairing(pairing.get(), auth, texts);
    if (attestation_key.has_value()) {
        velm_nvram_pairings_update_pairing_field(pairing.get(), "attestation_key",
                                                 attestation_key->c_str());
    }
    if (known) {
        velm_nvram_pairings_update_pairing(pairing.get());
    } else {
        velm_nvram_pairings_insert_pairing(pairing.get());
    }
    velm_nvram_pairings_save_pairings();
    if (!velm_nvram_pairings_is_stored(pairing.get())) {
        LOG_ERROR("%s - not stored: %s", pair_name,
                  velm_utils_get_field_value_from_json_object(auth, "deviceId"));
        return {http_status_internal_error, "not stored"};
    }
    return {};
}

http_outcome pair(const http_asked &asked)
{
    std::optional<std::string> attestation_key;
    if (request_header(asked.request, "X-Attestation") != nullptr) {
        http_outcome attested = verify_attestation(asked, &attestation_key.emplace());
        if (attested.status != http_status_ok) {
            return attested;
        }
    }
    const cJSON *const pair_data = pair_object(asked.body);
    return pair_data != nullptr ? store_pairing(asked.auth, pair_data, attestation_key)
                                : http_outcome{http_status_bad_request, "no valid pair data"};
}

http_outcome unpair(const http_asked &asked)
{
    const cJSON *const unpair_data = unpair_object(asked.body);
    if (unpair_data == nullptr) {
        return {http_status_bad_request, "no valid unpair data"};
    }
    const char *const device_id =
        velm_utils_get_field_value_from_json_object(unpair_data, "deviceId");
    if (device_id == nullptr || *device_id == '\0') {
        LOG_ERROR("%s - no deviceId", unpair_name);
        return {http_status_bad_request, "no deviceId to unpair"};
    }
    LOG_TRACE("%s - %s", unpair_name, device_id);
    if (velm_nvram_pairings_pairing_exists(device_id) == 0) {
        LOG_ERROR("%s - no pairing: %s", unpair_name, device_id);
        return {http_status_not_found, "no such pairing"};
    }
    velm_nvram_pairings_delete_pairing(device_id);
    velm_nvram_pairings_save_pairings();
    return {};
}

/// What anybody with a login may know of a pairing: no token, model, version or key.
struct listed_member {
    const char *name;
    const char *field;
    const char *failing_call;
};
// clang-format off
constexpr listed_member listed_members[] = {
    {"deviceId",     "dev_id",     "cJSON_AddStringToObject(p, \"deviceId\", velm_utils_get_field_value_from_json_object(pairing, \"dev_id\"))"},
    {"friendlyName", "name",       "cJSON_AddStringToObject(p, \"friendlyName\", velm_utils_get_field_value_from_json_object(pairing, \"name\"))"},
    {"deviceType",   "dev_type",   "cJSON_AddStringToObject(p, \"deviceType\", velm_utils_get_field_value_from_json_object(pairing, \"dev_type\"))"},
    {"pairingDate",  "date_added", "cJSON_AddStringToObject(p, \"pairingDate\", velm_utils_get_field_value_from_json_object(pairing, \"date_added\"))"},
};
// clang-format on

json_ptr listed_pairing(const cJSON *pairing)
{
    json_ptr p{cJSON_CreateObject()};
    REQUIRE_MEMORY(p, "p");
    for (const listed_member &member : listed_members) {
        const cJSON *const added = cJSON_AddStringToObject(
            p.get(), member.name,
            velm_utils_get_field_value_from_json_object(pairing, member.field));
        REQUIRE_MEMORY(added, member.failing_call);
    }
    return p;
}

http_outcome list_pairings(const http_asked & /*asked*/)
{
    json_ptr response_json{cJSON_CreateObject()};
    REQUIRE_MEMORY(response_json, "response_json");
    cJSON *const pairings = cJSON_AddArrayToObject(response_json.get(), "pairings");
    REQUIRE_MEMORY(pairings, "pairings");
    for (int index = 0; index < http_server_config()->pairings_limit; ++index) {
        const json_ptr pairing = velm_nvram_pairings_select_live_pairing(index);
        if (pairing != nullptr) {
            cJSON_AddItemToArray(pairings, listed_pairing(pairing.get()).release());
        }
    }
    return {http_status_ok, nullptr, std::move(response_json)};
}

} // namespace

void http_method_pair_handle(evhtp_request_t *request, int break_code)
{
    http_server_answer(request, break_code, {pair_name, "/pair", pair, true});
}

void http_method_pairings_handle(evhtp_request_t *request, int break_code)
{
    http_server_answer(request, break_code, {__func__, "/pairings", list_pairings, false});
}

void http_method_unpair_handle(evhtp_request_t *request, int break_code)
{
    http_server_answer(request, break_code, {unpair_name, "/unpair", unpair, true});
}
