#include "android_validation/keys.h"

#include <utility>

#include "config/file_notes.h"
#include "file/common_file.h"
#include "handles/cjson.h"
#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "velm_attestation_engine";

constexpr char decryption_key[] = "app.android.integrity.d.key.path";
constexpr char verification_key[] = "app.android.integrity.v.key.path";

/// Nobody looks at the other key without this one.
void note_no_decryption(const velm_config &config, const char *why)
{
    file_note_set(decryption_key, config.app_android_integrity_d_key_path, why);
    file_note_set(verification_key, config.app_android_integrity_v_key_path,
                  "it is not used without a decryption key", file_reading::left_out);
}

/// The decryption key was good; null when this one is too.
void note_verification(const velm_config &config, const char *why)
{
    file_note_set(decryption_key, config.app_android_integrity_d_key_path, nullptr);
    file_note_set(verification_key, config.app_android_integrity_v_key_path, why);
}

bool integrity_key_files_present(const char *caller, const velm_config &config)
{
    if (config.app_android_integrity_d_key_path[0] == '\0') {
        note_no_decryption(config, "not set");
        LOG_ERROR("%s - no decryption key setting", caller);
        return false;
    }
    if (!common_file_exists(config.app_android_integrity_d_key_path)) {
        note_no_decryption(config, "the file is missing");
        LOG_ERROR("%s - no decryption key file", caller);
        return false;
    }
    if (!common_file_exists(config.app_android_integrity_v_key_path)) {
        file_note_set(decryption_key, config.app_android_integrity_d_key_path,
                      "it is not used without a verification key", file_reading::left_out);
        file_note_set(verification_key, config.app_android_integrity_v_key_path,
                      "the file is missing");
        LOG_ERROR("%s - no verification key file", caller);
        return false;
    }
    return true;
}

std::optional<integrity_keys> integrity_keys_read(const char *caller, const velm_config &config)
{
    auto decryption = read_binary_file(config.app_android_integrity_d_key_path);
    if (!decryption.has_value()) {
        note_no_decryption(config, "the file cannot be read");
        LOG_ERROR("%s - cannot read decryption key file", caller);
        return std::nullopt;
    }
    auto verification = read_binary_file(config.app_android_integrity_v_key_path);
    if (!verification.has_value()) {
        note_verification(config, "the file cannot be read");
        LOG_ERROR("%s - cannot read verification key file", caller);
        return std::nullopt;
    }
    return integrity_keys{std::move(*decryption), std::move(*verification)};
}

bool is_json(const std::string &text)
{
    return json_ptr{cJSON_Parse(text.c_str())} != nullptr;
}

bool integrity_keys_are_json(const char *caller, const velm_config &config,
                             const integrity_keys &keys)
{
    if (!is_json(keys.decryption)) {
        note_no_decryption(config, "the file is no JSON");
        LOG_ERROR("%s - invalid format of decryption key file", caller);
        return false;
    }
    if (!is_json(keys.verification)) {
        note_verification(config, "the file is no JSON");
        LOG_ERROR("%s - invalid format of verification key file", caller);
        return false;
    }
    return true;
}

} // namespace

std::optional<integrity_keys> integrity_keys_load(const char *caller, const velm_config &config)
{
    if (!integrity_key_files_present(caller, config)) {
        return std::nullopt;
    }
    auto keys = integrity_keys_read(caller, config);
    if (!keys.has_value() || !integrity_keys_are_json(caller, config, *keys)) {
        return std::nullopt;
    }
    note_verification(config, nullptr);
    return keys;
}
