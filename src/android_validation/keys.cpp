#include "android_validation/keys.h"

#include <utility>

#include "file/common_file.h"
#include "handles/cjson.h"
#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "velm_attestation_engine";

bool integrity_key_files_present(const char *caller, const velm_config &config)
{
    if (config.app_android_integrity_d_key_path[0] == '\0') {
        LOG_ERROR("%s - no decryption key setting", caller);
        return false;
    }
    if (!common_file_exists(config.app_android_integrity_d_key_path)) {
        LOG_ERROR("%s - no decryption key file", caller);
        return false;
    }
    if (!common_file_exists(config.app_android_integrity_v_key_path)) {
        LOG_ERROR("%s - no verification key file", caller);
        return false;
    }
    return true;
}

std::optional<integrity_keys> integrity_keys_read(const char *caller, const velm_config &config)
{
    auto decryption = read_binary_file(config.app_android_integrity_d_key_path);
    if (!decryption.has_value()) {
        LOG_ERROR("%s - cannot read decryption key file", caller);
        return std::nullopt;
    }
    auto verification = read_binary_file(config.app_android_integrity_v_key_path);
    if (!verification.has_value()) {
        LOG_ERROR("%s - cannot read verification key file", caller);
        return std::nullopt;
    }
    return integrity_keys{std::move(*decryption), std::move(*verification)};
}

bool is_json(const std::string &text)
{
    return json_ptr{cJSON_Parse(text.c_str())} != nullptr;
}

bool integrity_keys_are_json(const char *caller, const integrity_keys &keys)
{
    if (!is_json(keys.decryption)) {
        LOG_ERROR("%s - invalid format of decryption key file", caller);
        return false;
    }
    if (!is_json(keys.verification)) {
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
    if (!keys.has_value() || !integrity_keys_are_json(caller, *keys)) {
        return std::nullopt;
    }
    return keys;
}
