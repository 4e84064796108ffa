#include "velm_config.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>
#include <variant>

#include "config/settings.h"
#include "config/value.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "velm_config";
constexpr char default_logging[] = "enabled=no:level=error:syslog=no:syslog.ident=velmd:stdout=no";

using setting_rows = std::span<const config_setting>;

void set_default(bool *field, const char *standard)
{
    *field = std::string_view{standard} == config_yes;
}

void set_default(std::uint16_t *field, const char *standard)
{
    const std::string_view digits{standard};
    std::from_chars(digits.data(), digits.data() + digits.size(), *field);
}

template <std::size_t Size>
void set_default(char (*field)[Size], const char *standard)
{
    velm_config_copy_text(*field, Size, standard);
}

/// True when the field has its value from the file.
bool load(const ConfigFile *file, const char *key, bool *field)
{
    set_config_value_bool(file, key, field);
    return conffile_get_value(file, key) != nullptr;
}

bool load(const ConfigFile *file, const char *key, std::uint16_t *field)
{
    set_config_value_uint16(file, key, field);
    return conffile_get_value(file, key) != nullptr && errno != ERANGE;
}

template <std::size_t Size>
bool load(const ConfigFile *file, const char *key, char (*field)[Size])
{
    set_config_value_str(file, key, *field, Size);
    return conffile_get_value(file, key) != nullptr;
}

void print(const char *key, bool value)
{
    LOG_TRACE("%s: %s", key, value ? config_yes : "no");
}

void print(const char *key, std::uint16_t value)
{
    LOG_TRACE("%s: %u", key, static_cast<unsigned>(value));
}

void print(const char *key, const char *value)
{
    LOG_TRACE("%s: %s", key, value);
}

void set_defaults(velm_config &config, setting_rows rows)
{
    for (const config_setting &row : rows) {
        std::visit([&](auto field) { set_default(&(config.*field), row.standard); }, row.field);
    }
}

void load_rows(velm_config &config, const ConfigFile *file, setting_rows rows)
{
    for (const config_setting &row : rows) {
        if (std::visit([&](auto field) { return load(file, row.key, &(config.*field)); },
                       row.field)) {
            config_source_of(config, row) = config_source::file;
        }
    }
}

bool is_setting(std::string_view key)
{
    for (const config_setting &row : config_file_settings()) {
        if (key == row.key) {
            return true;
        }
    }
    return false;
}

/// They are shown, and nothing else. Of a repeated key the first line counts, which comes last.
void keep_other_pairs(velm_config &config, const ConfigFile *file)
{
    config.other_pairs.reset(cJSON_CreateObject());
    cJSON *const pairs = config.other_pairs.get();
    for (const ConfigPair *pair = conffile_next_pair(file, nullptr); pair != nullptr;
         pair = conffile_next_pair(file, pair)) {
        const char *const key = conffile_pair_key(pair);
        if (!is_setting(key)) {
            cJSON_DeleteItemFromObjectCaseSensitive(pairs, key);
            cJSON_AddStringToObject(pairs, key, conffile_pair_value(pair));
        }
    }
}

/// The control socket lies beside the pid file, unless the file says where. A pid file's path counts from
/// "/".
void place_control_socket(velm_config &config)
{
    if (config_source_of(config, &velm_config::control_sock) == config_source::file) {
        return;
    }
    const std::string pid_file = config.pid_file_path;
    const std::string folder = pid_file.substr(0, pid_file.rfind('/') + 1);
    const std::string path =
        (folder.starts_with('/') ? folder : "/" + folder) + "velmd.control.sock";
    velm_config_copy_text(config.control_sock, sizeof config.control_sock,
                          pid_file.empty() ? "" : path.c_str());
}

void print_rows(const velm_config &config, setting_rows rows)
{
    for (const config_setting &row : rows) {
        if (row.is_traced) {
            std::visit([&](auto field) { print(row.key, config.*field); }, row.field);
        }
    }
}

} // namespace

void velm_config_set_defaults(velm_config *config)
{
    REQUIRE_NOT_NULL(config, "config");
    common_logger_configure_from_string(default_logging);
    config->sources.fill(config_source::standard);
    set_defaults(*config, config_file_settings());
    set_defaults(*config, config_platform_settings());
    config->other_pairs.reset();
    config->log_level[0] = '\0';
    config->bssids_list.reset(cJSON_Parse("[]"));
    REQUIRE_NOT_NULL(config->bssids_list, "config->bssids_list");
}

void velm_config_load_from_file(velm_config *config, const char *file)
{
    REQUIRE_NOT_NULL(config, "config");
    REQUIRE_NOT_NULL(file, "file");
    const conffile_ptr cfile = conffile_parse(file);
    if (cfile == nullptr) {
        return;
    }
    common_logger_configure_from_file(cfile.get());
    velm_config_load_pairs(config, cfile);
}

void velm_config_load_pairs(velm_config *config, const conffile_ptr &cfile)
{
    REQUIRE_NOT_NULL(config, "config");
    const setting_rows rows = config_file_settings();
    load_rows(*config, cfile.get(), rows);
    // The order of applying is fixed, and has the last row, vendor.id, twice. The second time writes the
    // same text.
    load_rows(*config, cfile.get(), rows.last(1));
    place_control_socket(*config);
    keep_other_pairs(*config, cfile.get());
}

void velm_config_print_to_log(const velm_config *config)
{
    REQUIRE_NOT_NULL(config, "config");
    if (!common_logger_writes(log_category, LOG_LEVEL_TRACE)) {
        return;
    }
    print_rows(*config, config_file_settings());
    print_rows(*config, config_platform_settings());
    const json_text bssids{config->bssids_list == nullptr
                               ? nullptr
                               : cJSON_PrintUnformatted(config->bssids_list.get())};
    LOG_TRACE("%s: %s", "bssids.list", bssids == nullptr ? "(null)" : bssids.get());
}

void set_config_value_str(const ConfigFile *cfile, const char *key, char *dst, std::size_t size)
{
    REQUIRE_NOT_NULL(cfile, "cfile");
    REQUIRE_NOT_NULL(key, "key");
    const char *const value = conffile_get_value(cfile, key);
    if (value != nullptr) {
        velm_config_copy_text(dst, size, value);
    }
}

void set_config_value_uint16(const ConfigFile *cfile, const char *key, std::uint16_t *dst)
{
    REQUIRE_NOT_NULL(cfile, "cfile");
    REQUIRE_NOT_NULL(key, "key");
    const char *const value = conffile_get_value(cfile, key);
    if (value == nullptr) {
        return;
    }
    const long number = std::strtol(value, nullptr, 10);
    if (errno != ERANGE) {
        *dst = static_cast<std::uint16_t>(number);
    }
}

void set_config_value_bool(const ConfigFile *cfile, const char *key, bool *dst)
{
    REQUIRE_NOT_NULL(cfile, "cfile");
    REQUIRE_NOT_NULL(key, "key");
    const char *const value = conffile_get_value(cfile, key);
    if (value != nullptr) {
        *dst = config_truth(value).value_or(false);
    }
}

void velm_config_copy_text(char *dst, std::size_t size, const char *src)
{
    if (size == 0) {
        return;
    }
    const std::size_t length = strnlen(src, size - 1);
    std::memcpy(dst, src, length);
    std::memset(dst + length, 0, size - length);
}

std::string velm_config_lan_ip_address(const velm_config *config)
{
    REQUIRE_NOT_NULL(config, "config");
    const std::string_view addresses{config->lan_ip_address};
    return std::string{addresses.substr(0, addresses.find('\n'))};
}
