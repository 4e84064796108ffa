#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include "config/file_notes.h"
#include "config/setting_text.h"
#include "config/settings.h"
#include "control/members.h"
#include "control/status_parts.h"
#include "logger/keys.h"
#include "text/utf8.h"

namespace {

// In the order of config_source.
constexpr const char *source_names[] = {"default", "file", "command line", "nvram", "platform"};
static_assert(std::size(source_names) == static_cast<std::size_t>(config_source::platform) + 1);

void add_setting(cJSON *settings, const char *key, const std::string &value, config_source source)
{
    json_ptr setting = control_object();
    control_add_text(setting.get(), "key", key);
    control_add_text(setting.get(), "value", value);
    control_add_text(setting.get(), "source", source_names[static_cast<std::size_t>(source)]);
    control_append(settings, std::move(setting));
}

void add_rows(cJSON *settings, const velm_config &config, std::span<const config_setting> rows)
{
    for (const config_setting &row : rows) {
        add_setting(settings, row.key, config_setting_text(config, row),
                    config_source_of(config, row));
    }
}

/// Null when the file has no such pair.
const char *other_value(const velm_config &config, const char *key)
{
    return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(config.other_pairs.get(), key));
}

void add_logger_key(cJSON *settings, const velm_config &config, const char *key,
                    const char *standard)
{
    const std::string name = std::string{logger_prefix} + key;
    const char *const from_file = other_value(config, name.c_str());
    const bool is_from_nvram = config.log_level[0] != '\0' && key == std::string_view{"level"};
    const config_source source = is_from_nvram          ? config_source::nvram
                                 : from_file != nullptr ? config_source::file
                                                        : config_source::standard;
    add_setting(settings, name.c_str(),
                is_from_nvram          ? config.log_level
                : from_file != nullptr ? from_file
                                       : standard,
                source);
}

/// The keys of the logger, and beside them those that the daemon does not know: they change nothing.
void add_other_pairs(cJSON *document, cJSON *settings, const velm_config &config)
{
    for (std::size_t i = 0; i < logger_keys().size(); ++i) {
        add_logger_key(settings, config, logger_keys()[i], logger_standards()[i]);
    }
    cJSON *const unknown = control_add_list(document, "unknownKeys");
    const cJSON *pair = nullptr;
    cJSON_ArrayForEach(pair, config.other_pairs.get())
    {
        const std::string_view name = pair->string;
        const logger_key key = name.starts_with(logger_prefix)
                                   ? logger_key_of(name.substr(logger_prefix.size()))
                                   : logger_key::unknown;
        if (key == logger_key::category) {
            add_setting(settings, pair->string, pair->valuestring, config_source::file);
        } else if (key == logger_key::unknown) {
            control_append(unknown, json_ptr{cJSON_CreateString(utf8_mended(name).c_str())});
        }
    }
}

struct named_file {
    const char *key;
    char (velm_config::*path)[config_path_size];
    const char *unset; // what is so without a path; null: that is wrong
};

constexpr named_file files[] = {
    {"http.client.ca_cert.path", &velm_config::http_client_ca_cert_path, nullptr},
    {"http.server.cert.path", &velm_config::http_server_cert_path, nullptr},
    {"http.server.key.path", &velm_config::http_server_key_path, nullptr},
    {"app.android.integrity.d.key.path", &velm_config::app_android_integrity_d_key_path, nullptr},
    {"app.android.integrity.v.key.path", &velm_config::app_android_integrity_v_key_path, nullptr},
    {"app.android.integrity.privatekey.path", &velm_config::app_android_integrity_privatekey_path,
     nullptr},
    {"app.ios.attest.root.ca.path", &velm_config::app_ios_attest_root_ca_path,
     "not set, the built-in root is used"},
    {"cloudmessaging.firebase.privatekey.path",
     &velm_config::cloudmessaging_firebase_privatekey_path, nullptr},
};

/// What is configured, and what was seen when it was read.
void add_file(cJSON *list, const named_file &file, const velm_config &config)
{
    const char *const path = config.*file.path;
    const file_note *const note = file_note_get(file.key);
    const bool is_unset = *path == '\0' && file.unset != nullptr;
    const char *why = note == nullptr ? "it has not been read" : note->why.c_str();
    why = is_unset ? file.unset : why;
    json_ptr object = control_object();
    control_add_text(object.get(), "key", file.key);
    control_add_text(object.get(), "path", path);
    control_add_moment(object.get(), "read",
                       note == nullptr || is_unset ? 0 : std::int64_t{note->read} * 1000);
    control_add_bool(object.get(), "usable", is_unset || *why == '\0');
    control_add_text_or_null(object.get(), "why", *why == '\0' ? nullptr : why);
    control_append(list, std::move(object));
}

} // namespace

void control_status_add_settings(cJSON *document, const velm_config &config)
{
    cJSON *const settings = control_add_list(document, "settings");
    add_rows(settings, config, config_file_settings());
    add_rows(settings, config, config_platform_settings());
    add_setting(settings, "bssids.list", config_bssids_text(config.bssids_list.get()),
                config_source::platform);
    add_other_pairs(document, settings, config);
    cJSON *const list = control_add_list(document, "files");
    for (const named_file &file : files) {
        add_file(list, file, config);
    }
}
