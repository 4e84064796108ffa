#include "velm_config.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>
#include <variant>

#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "velm_config";
constexpr char default_logging[] = "enabled=no:level=error:syslog=no:syslog.ident=velmd:stdout=no";

struct flag_row {
    const char *key;
    bool velm_config::*member;
    bool standard;
};

struct number_row {
    const char *key;
    std::uint16_t velm_config::*member;
    std::uint16_t standard;
};

struct text_row {
    const char *key;
    std::span<char> (*member)(velm_config &);
    const char *(*read)(const velm_config &);
    const char *standard;
};

using config_row = std::variant<flag_row, number_row, text_row>;

/// A row for a character array, of whatever size.
template <auto Member>
constexpr text_row text(const char *key, const char *standard)
{
    return {key, [](velm_config &config) -> std::span<char> { return config.*Member; },
            [](const velm_config &config) -> const char * { return config.*Member; }, standard};
}

constexpr text_row vendor_id_row = text<&velm_config::vendor_id>("vendor.id", "NORVALE");

/// The fields that the file sets, in the order of the record.
// clang-format off
constexpr config_row file_rows[] = {
    flag_row{"process.daemonize", &velm_config::daemonize, true},
    text<&velm_config::pid_file_path>("process.pidfile", "/var/run/velmd.pid"),
    text<&velm_config::http_client_ca_cert_path>("http.client.ca_cert.path", "/etc/afc/velmd/cacert.pem"),
    text<&velm_config::http_server_cert_path>("http.server.cert.path", "/etc/afc/velmd/velm_server_cert.pem"),
    text<&velm_config::http_server_key_path>("http.server.key.path", "/etc/afc/velmd/velm_server_key.pem"),
    number_row{"http.server.port", &velm_config::http_server_port, 8080},
    number_row{"ssdp.server.port", &velm_config::ssdp_server_port, 1900},
    number_row{"pairings.limit", &velm_config::pairings_limit, 10},
    text<&velm_config::app_android_package_name>("app.android.package_name", "com.norvale.afc"),
    text<&velm_config::app_android_integrity_d_key_path>("app.android.integrity.d.key.path", "/etc/afc/velmd/android_integrity_decryption.jwk"),
    text<&velm_config::app_android_integrity_v_key_path>("app.android.integrity.v.key.path", "/etc/afc/velmd/android_integrity_verification.jwk"),
    text<&velm_config::app_android_integrity_privatekey_path>("app.android.integrity.privatekey.path", "/etc/afc/velmd/android_integrity_adminsdk_key.json"),
    text<&velm_config::app_android_integrity_method>("app.android.integrity.method", "remote"),
    flag_row{"app.android.integrity.enabled", &velm_config::app_android_integrity_enabled, true},
    text<&velm_config::app_ios_appid>("app.ios.appid", "Q4TZ8KM2W7.com.norvale.afc"),
    text<&velm_config::app_ios_attest_root_ca_path>("app.ios.attest.root.ca.path", ""),
    text<&velm_config::location_policy_ipc_sock>("location.policy.ipc.sock", "/var/afc/zelka_daemon"),
    text<&velm_config::cloudmessaging_firebase_privatekey_path>("cloudmessaging.firebase.privatekey.path", "/etc/afc/velmd/firebase_adminsdk_key.json"),
    vendor_id_row,
};

/// The fields that only the platform and the command line set; the key is for the log.
constexpr config_row platform_rows[] = {
    text<&velm_config::lan_ip_address>("lan.ip.address", "192.168.1.1"),
    text<&velm_config::lan_name>("lan.name", "br0"),
    text<&velm_config::serial_number>("serial.number", "1234"),
    text<&velm_config::mac_address>("mac.address", "01:02:03:04:05:06"),
};
// clang-format on

void set_default(velm_config &config, const flag_row &row)
{
    config.*row.member = row.standard;
}

void set_default(velm_config &config, const number_row &row)
{
    config.*row.member = row.standard;
}

void set_default(velm_config &config, const text_row &row)
{
    const std::span<char> field = row.member(config);
    velm_config_copy_text(field.data(), field.size(), row.standard);
}

void load(velm_config &config, const ConfigFile *file, const flag_row &row)
{
    set_config_value_bool(file, row.key, &(config.*row.member));
}

void load(velm_config &config, const ConfigFile *file, const number_row &row)
{
    set_config_value_uint16(file, row.key, &(config.*row.member));
}

void load(velm_config &config, const ConfigFile *file, const text_row &row)
{
    const std::span<char> field = row.member(config);
    set_config_value_str(file, row.key, field.data(), field.size());
}

void print(const velm_config &config, const flag_row &row)
{
    LOG_TRACE("%s: %s", row.key, config.*row.member ? "yes" : "no");
}

void print(const velm_config &config, const number_row &row)
{
    LOG_TRACE("%s: %u", row.key, static_cast<unsigned>(config.*row.member));
}

void print(const velm_config &config, const text_row &row)
{
    LOG_TRACE("%s: %s", row.key, row.read(config));
}

void set_defaults(velm_config &config, std::span<const config_row> rows)
{
    for (const config_row &row : rows) {
        std::visit([&config](const auto &field) { set_default(config, field); }, row);
    }
}

void print_rows(const velm_config &config, std::span<const config_row> rows)
{
    for (const config_row &row : rows) {
        std::visit([&config](const auto &field) { print(config, field); }, row);
    }
}

} // namespace

void velm_config_set_defaults(velm_config *config)
{
    REQUIRE_NOT_NULL(config, "config");
    common_logger_configure_from_string(default_logging);
    set_defaults(*config, file_rows);
    set_defaults(*config, platform_rows);
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
    for (const config_row &row : file_rows) {
        std::visit([&](const auto &field) { load(*config, cfile.get(), field); }, row);
    }
    load(*config, cfile.get(), vendor_id_row); // once more, as ever: it changes nothing
}

void velm_config_print_to_log(const velm_config *config)
{
    REQUIRE_NOT_NULL(config, "config");
    if (!common_logger_writes(log_category, LOG_LEVEL_TRACE)) {
        return;
    }
    print_rows(*config, file_rows);
    print_rows(*config, platform_rows);
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
        const std::string_view text{value};
        *dst = text == "true" || text == "yes" || text == "1";
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
