#include "velm_attestation_engine.h"

#include <memory>
#include <optional>
#include <utility>

#include "android_validation/keys.h"
#include "android_validation/token.h"
#include "android_validation/verdict.h"
#include "async/common_async.h"
#include "config/file_notes.h"
#include "crypto/common_crypto.h"
#include "file/common_file.h"
#include "google/junk.h"
#include "handles/argument.h"
#include "handles/cjson.h"
#include "ios_validation/ios_app_validate.h"
#include "ios_validation/signature.h"
#include "json/text.h"
#include "logger/fatal.h"
#include "story/reason.h"
#include "velm_google_integrity.h"
#include "velm_nvram_pairings.h"
#include "velm_utils.h"

namespace {

constexpr char log_category[] = "velm_attestation_engine";

using bytes_view = std::span<const std::uint8_t>;

struct module_state {
    const velm_config *config = nullptr;
    std::optional<integrity_keys> keys;
    std::string ios_root_ca; // PEM; empty: Apple's
    bool verifies = false;   // the library has been seen to refuse a wrong key
};
module_state state;

/// What a validator works on, for one call. An attestation fills the key, an assertion reads it.
struct validator_user_data {
    std::string attestation_key; // base64 of the DER SubjectPublicKeyInfo
};

validator_user_data *user_data_of(const ios_app_validator *iav, const char *caller)
{
    void *user_data = iav != nullptr ? ios_app_validator_get_user_data(iav) : nullptr;
    if (user_data == nullptr) {
        fatal_null_reference(log_category, __FILE__, __LINE__, caller, "iav");
    }
    return static_cast<validator_user_data *>(user_data);
}

unsigned write_pub_key(ios_app_validator *iav, bytes_view der)
{
    validator_user_data *user_data = user_data_of(iav, __func__);
    auto encoded = common_crypto_base64_encode(der);
    if (!encoded.has_value()) {
        return 0;
    }
    user_data->attestation_key = std::move(*encoded);
    return 1;
}

std::optional<std::vector<std::uint8_t>> read_pub_key(ios_app_validator *iav)
{
    return common_crypto_base64_decode(user_data_of(iav, __func__)->attestation_key);
}

/// Counters are not kept a pairing: any counter from 1 on passes, and may come again.
unsigned set_counter(ios_app_validator *iav, std::uint32_t /*counter*/)
{
    (void)user_data_of(iav, __func__);
    return 1;
}

std::uint32_t get_counter(ios_app_validator *iav)
{
    (void)user_data_of(iav, __func__);
    return 0;
}

constexpr ios_app_validator_callbacks validator_callbacks = {write_pub_key, read_pub_key,
                                                             set_counter, get_counter};

/// Null, and a log line, when the custom root cannot be set.
ios_app_validator_ptr validator_create(const char *caller, validator_user_data *user_data)
{
    auto iav = ios_app_validator_new(state.config->app_ios_appid, &validator_callbacks, user_data);
    if (iav == nullptr) {
        fatal_not_enough_memory(log_category, __FILE__, __LINE__, caller, "iav");
    }
    ios_app_validator_set_develop(iav.get(), 1);
    if (!state.ios_root_ca.empty() &&
        ios_app_validator_set_root_ca(iav.get(), state.ios_root_ca.c_str()) == 0) {
        LOG_ERROR("%s - cannot set custom root ca", caller);
        return nullptr;
    }
    return iav;
}

bool app_id_present(const char *caller)
{
    if (state.config == nullptr || state.config->app_ios_appid[0] == '\0') {
        LOG_ERROR("%s - no app id", caller);
        story_reason_set("app.ios.appid is not configured");
        return false;
    }
    return true;
}

/// What is wrong with the file; null when it is used.
const char *ios_root_ca_load(const char *caller, const char *path)
{
    if (*path == '\0') {
        state.ios_root_ca.clear();
        return nullptr;
    }
    if (!common_file_exists(path)) {
        LOG_ERROR("%s - no iOS attestation root cert file", caller);
        return "the file is missing";
    }
    auto pem = read_binary_file(path);
    if (!pem.has_value()) {
        LOG_ERROR("%s - cannot read iOS attestation root cert file", caller);
        return "the file cannot be read";
    }
    if (pem->empty()) {
        LOG_ERROR("%s - iOS attestation root cert file is empty", caller);
        return "the file is empty";
    }
    state.ios_root_ca = std::move(*pem);
    return nullptr;
}

void ios_root_ca_note(const velm_config &config, const char *why)
{
    file_note_set("app.ios.attest.root.ca.path", config.app_ios_attest_root_ca_path, why);
}

/// Null, and a log line, when the payload is no JSON text from its first byte to its last. A NUL,
/// raw or escaped, would cut a name or a value short of what was signed.
json_ptr integrity_verdict_parse(const char *caller, const std::string &payload)
{
    LOG_TRACE("%s - integrity verdict: %.*s", caller, static_cast<int>(payload.size()),
              payload.c_str());
    const bool has_nul = payload.find('\0') != std::string::npos || json_has_nul_in_string(payload);
    json_ptr verdict{has_nul ? nullptr : cJSON_ParseWithOpts(payload.c_str(), nullptr, 1)};
    if (verdict == nullptr) {
        LOG_ERROR("%s - cannot parse integrity verdict", caller);
        story_reason_set("its integrity token holds no verdict");
    }
    return verdict;
}

/// Not every rule says why it failed: what an earlier request left behind is not the reason.
bool verdict_is_good(const android_verify_assertion_input &input, const cJSON *verdict)
{
    (void)story_reason_take();
    return android_interpret_verdict(input, verdict, state.config->app_android_package_name);
}

bool integrity_token_judge(const char *caller, const android_verify_assertion_input &input)
{
    (void)story_reason_take();
    const integrity_keys none;
    const integrity_keys &keys = state.keys.has_value() ? *state.keys : none;
    const auto payload =
        android_token_open(input.assertion_object_buf, keys.decryption, keys.verification);
    const json_ptr verdict =
        payload.has_value() ? integrity_verdict_parse(caller, *payload) : nullptr;
    if (verdict == nullptr) {
        return false;
    }
    if (!verdict_is_good(input, verdict.get())) {
        LOG_ERROR("%s - failure", caller);
        return false;
    }
    LOG_TRACE("%s - success", caller);
    return true;
}

/// Runs on the loop with the copy that it frees; each worker reports exactly once.
void android_verify_assertion_locally(void *argument, short /*events*/,
                                      common_async_context * /*context*/) noexcept
{
    const auto input = adopt<android_verify_assertion_input>(argument);
    const bool success = integrity_token_judge(__func__, *input);
    LOG_TRACE("%s - finished", __func__);
    input->result_cb(success, input->user_data);
}

/// Why none came may have been found out further down.
bool verdict_came(const cJSON *verdict)
{
    if (verdict == nullptr) {
        const story_reason reason = story_reason_take();
        story_reason_set(reason.text != nullptr ? reason.text
                                                : "Google gave no verdict on its integrity token");
    }
    return verdict != nullptr;
}

void google_integrity_result(const cJSON *verdict, void *context) noexcept
{
    const auto input = adopt<android_verify_assertion_input>(context);
    LOG_TRACE("%s - start", __func__);
    const bool success = verdict_came(verdict) && verdict_is_good(*input, verdict);
    LOG_TRACE("%s - finished", __func__);
    input->result_cb(success, input->user_data);
}

void android_verify_assertion_remotely(void *argument, short /*events*/,
                                       common_async_context * /*context*/) noexcept
{
    auto input = adopt<android_verify_assertion_input>(argument);
    LOG_TRACE("%s - start", __func__);
    const bytes_view token{input->assertion_object_buf};
    const velm_google_asker asking{input->asker};
    velm_google_integrity_get_verdict(token, google_integrity_result, input.release());
}

std::vector<std::uint8_t> bytes_copy(const char *caller, const char *name, bytes_view bytes)
{
    const allocation_name naming{caller, name};
    return {bytes.begin(), bytes.end()};
}

std::unique_ptr<android_verify_assertion_input>
clone_android_verify_assertion_input(bytes_view assertion_object, bytes_view message_digest,
                                     velm_android_verify_assertion_callback result_cb,
                                     void *user_data)
{
    const allocation_name naming_input{__func__, "i"};
    auto i = std::make_unique<android_verify_assertion_input>();
    i->assertion_object_buf = bytes_copy(__func__, "i->assertion_object_buf", assertion_object);
    i->message_digest_buf = bytes_copy(__func__, "i->message_digest_buf", message_digest);
    i->result_cb = result_cb;
    i->user_data = user_data;
    i->asker = velm_google_asker::current();
    return i;
}

} // namespace

void velm_attestation_engine_prepare()
{
    state.verifies = state.verifies || ios_app_signature_self_test();
}

void velm_attestation_engine_init(const velm_config *config)
{
    LOG_TRACE("%s", __func__);
    REQUIRE_NOT_NULL(config, "config");
    velm_attestation_engine_prepare();
    REQUIRE_CALL(state.verifies, "ios_app_signature_self_test()", 0);
    state.config = config;
    velm_google_integrity_init(config);
    // What was loaded before stays in force until the new files have proved good, and the root is
    // only looked at after the Android keys passed.
    auto keys = integrity_keys_load(__func__, *config);
    if (!keys.has_value()) {
        const bool is_built_in = config->app_ios_attest_root_ca_path[0] == '\0';
        ios_root_ca_note(*config,
                         is_built_in ? nullptr : "it is not read before the keys for Android");
        return;
    }
    state.keys = std::move(keys);
    ios_root_ca_note(*config, ios_root_ca_load(__func__, config->app_ios_attest_root_ca_path));
}

velm_attestation_result
velm_attestation_engine_ios_verify_attestation(const char * /*device_id*/,
                                               std::span<const std::uint8_t> attestation_object,
                                               std::span<const std::uint8_t> client_data_hash)
{
    if (!app_id_present(__func__)) {
        return {};
    }
    validator_user_data user_data;
    const ios_app_validator_ptr iav = validator_create(__func__, &user_data);
    if (iav == nullptr) {
        return {};
    }
    if (ios_app_validate_attestation(iav.get(), attestation_object, client_data_hash) == 0) {
        LOG_ERROR("%s - failure", __func__);
        return {};
    }
    if (user_data.attestation_key.empty()) {
        LOG_ERROR("%s - invalid", __func__);
        return {};
    }
    LOG_TRACE("%s - success", __func__);
    return {true, std::move(user_data.attestation_key)};
}

bool velm_attestation_engine_ios_verify_assertion(const char *device_id,
                                                  std::span<const std::uint8_t> assertion_object,
                                                  std::span<const std::uint8_t> client_data_hash)
{
    const json_ptr pairing = velm_nvram_pairings_select_pairing(device_id);
    if (pairing == nullptr) {
        LOG_ERROR("%s - no pairing", __func__);
        story_reason_set("no phone with this device id is paired");
        return false;
    }
    const char *key = velm_utils_get_field_value_from_json_object(pairing.get(), "attestation_key");
    if (key == nullptr || *key == '\0') {
        LOG_ERROR("%s - no assertion key", __func__);
        story_reason_set("its pairing holds no App Attest key");
        return false;
    }
    validator_user_data user_data{key};
    if (!app_id_present(__func__)) {
        return false;
    }
    const ios_app_validator_ptr iav = validator_create(__func__, &user_data);
    if (iav == nullptr) {
        return false;
    }
    if (ios_app_validate_assertion(iav.get(), assertion_object, client_data_hash) == 0) {
        LOG_ERROR("%s - failure", __func__);
        return false;
    }
    LOG_TRACE("%s - success", __func__);
    return true;
}

int velm_attestation_engine_android_verify_assertion(
    const char *device_id, std::span<const std::uint8_t> assertion_object,
    std::span<const std::uint8_t> message_digest, int method,
    velm_android_verify_assertion_callback result_cb, void *user_data)
{
    REQUIRE_NOT_NULL(device_id, "input.device_id");
    REQUIRE_NOT_NULL(assertion_object.data(), "input.assertion_object_buf");
    REQUIRE_NOT_NULL(message_digest.data(), "input.message_digest_buf");
    REQUIRE_NOT_NULL(result_cb, "input.result_cb");
    auto copy = clone_android_verify_assertion_input(assertion_object, message_digest, result_cb,
                                                     user_data);
    common_async_callback worker = nullptr;
    if (method == velm_android_method_local) {
        worker = android_verify_assertion_locally;
    } else if (method == velm_android_method_remote) {
        worker = android_verify_assertion_remotely;
    } else {
        FATAL("%s: invalid method", __func__);
    }
    return common_async_action_call(worker, copy.release());
}
