#include "velm_nvram_config.h"

#include <nvram.h>

#include <algorithm>
#include <charconv>
#include <string_view>

#include "handles/malloc.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "velm_nvram_config";
constexpr std::size_t number_length_max = 20;

template <auto Member>
void text(const char *name, velm_config &config)
{
    velm_nvram_config_read_text(name, config.*Member, sizeof(config.*Member));
}

template <auto Member>
void number(const char *name, velm_config &config)
{
    velm_nvram_config_read_number(name, &(config.*Member), 1);
}

struct setting_row {
    const char *name;
    void (*read)(const char *name, velm_config &config);
};

// "decrytion" is what the platform writes.
// clang-format off
constexpr setting_row settings[] = {
    {"zelkad_http_client_trusted_ca",                 text<&velm_config::http_client_ca_cert_path>},
    {"zelkad_http_server_cert",                       text<&velm_config::http_server_cert_path>},
    {"zelkad_http_server_privatekey",                 text<&velm_config::http_server_key_path>},
    {"zelkad_http_server_port",                       number<&velm_config::http_server_port>},
    {"zelkad_discovery_ssdp_port",                    number<&velm_config::ssdp_server_port>},
    {"zelkad_pairing_maxnum",                         number<&velm_config::pairings_limit>},
    {"zelkad_app_android_app_name",                   text<&velm_config::app_android_package_name>},
    {"zelkad_app_android_integrity_decrytion_key",    text<&velm_config::app_android_integrity_d_key_path>},
    {"zelkad_app_android_integrity_verification_key", text<&velm_config::app_android_integrity_v_key_path>},
    {"zelkad_app_android_play_attestation_secret",    text<&velm_config::app_android_integrity_privatekey_path>},
    {"zelkad_app_ios_id",                             text<&velm_config::app_ios_appid>},
    {"zelkad_cmd_path",                               text<&velm_config::location_policy_ipc_sock>},
    {"zelkad_cm_firebase_privkey",                    text<&velm_config::cloudmessaging_firebase_privatekey_path>},
    {"ap_vendor",                                     text<&velm_config::vendor_id>},
};
// clang-format on

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

/// The number of a text of digits only; nothing for another text or a number beyond 16 bits.
std::optional<std::uint16_t> parse_number(std::string_view text)
{
    if (text.empty() || !std::all_of(text.begin(), text.end(), is_digit)) {
        return std::nullopt;
    }
    std::uint16_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc{} ? std::optional{value} : std::nullopt;
}

} // namespace

void velm_nvram_config_load(velm_config *config)
{
    REQUIRE_MEMORY(config, "config");
    for (const setting_row &setting : settings) {
        setting.read(setting.name, *config);
    }
}

std::optional<std::string> nvram_get_parameter(const char *name, std::size_t maximum_length)
{
    const malloc_text value{nvram_unf_get(name)};
    if (value == nullptr) {
        LOG_ERROR("%s - cannot get %s", __func__, name);
        return std::nullopt;
    }
    std::string text{value.get()};
    if (text.size() >= maximum_length) {
        LOG_ERROR("%s - invalid length for: %s", __func__, name);
        return std::nullopt;
    }
    return text;
}

void velm_nvram_config_read_text(const char *name, char *field, std::size_t size)
{
    const std::optional<std::string> value = nvram_get_parameter(name, size);
    if (value && !value->empty()) {
        velm_config_copy_text(field, size, value->c_str());
    }
}

void velm_nvram_config_read_number(const char *name, std::uint16_t *field, std::uint16_t minimum)
{
    const std::optional<std::string> value = nvram_get_parameter(name, number_length_max + 1);
    const std::optional<std::uint16_t> parsed = value ? parse_number(*value) : std::nullopt;
    if (parsed && *parsed >= minimum) {
        *field = *parsed;
    }
}
