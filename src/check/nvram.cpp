#include "check/nvram.h"

#include <nvram.h>

#include <cctype>
#include <string>
#include <vector>

#include "check/values.h"
#include "config/settings.h"
#include "config/value.h"
#include "cutils/interface_addresses.h"
#include "handles/malloc.h"
#include "velm_nvram_config.h"
#include "velm_sys_params.h"

namespace {

constexpr char mode_name[] = "zelkad_mode";
constexpr char level_name[] = "zelkad_debug_level";

check_place place_of(const std::string &name)
{
    return {"nvram " + name, 0};
}

std::string value_of(const char *name)
{
    const malloc_text value{nvram_unf_get(name)};
    return value == nullptr ? std::string{} : std::string{value.get()};
}

void check_number(const char *name, std::uint16_t minimum, check_findings *findings)
{
    const nvram_fit fit = velm_nvram_config_fit_number(name, minimum);
    if (fit == nvram_fit::no_number || fit == nvram_fit::too_long) {
        findings->error(place_of(name), "%s is no number from %u to 65535: it is ignored",
                        check_quoted(value_of(name)).c_str(), unsigned{minimum});
    }
}

void check_text(const char *name, std::size_t longest, check_findings *findings)
{
    if (velm_nvram_config_fit_text(name, longest + 1) == nvram_fit::too_long) {
        findings->error(place_of(name), "%zu characters, more than %zu: it is ignored",
                        value_of(name).size(), longest);
    }
}

void check_settings(check_findings *findings)
{
    for (const config_setting &row : config_file_settings()) {
        const std::size_t longest = config_text_max(row.field);
        if (row.nvram == nullptr) {
            continue;
        }
        if (longest == 0) {
            check_number(row.nvram, nvram_number_min, findings);
        } else {
            check_text(row.nvram, longest, findings);
        }
    }
}

void check_mode(check_findings *findings)
{
    std::uint16_t mode = 1;
    check_number(mode_name, 0, findings);
    if (velm_nvram_config_fit_number(mode_name, 0) == nvram_fit::fits) {
        velm_nvram_config_read_number(mode_name, &mode, 0);
    }
    if (mode == 0) {
        findings->warning(place_of(mode_name), "with 0 the daemon does not start");
    }
}

void check_debug_level(check_findings *findings)
{
    const std::string level = value_of(level_name);
    if (!level.empty()) {
        check_level(place_of(level_name), "", level, findings);
    }
}

/// The daemon's own parser forgives more, and would then know the radio by another BSSID than is meant.
bool is_bssid(const std::string &text)
{
    constexpr std::size_t length = 17; // six pairs, five colons
    if (text.size() != length) {
        return false;
    }
    for (std::size_t i = 0; i < length; ++i) {
        const bool is_fit =
            i % 3 == 2 ? text[i] == ':' : std::isxdigit(static_cast<unsigned char>(text[i])) != 0;
        if (!is_fit) {
            return false;
        }
    }
    return true;
}

void check_bssids(check_findings *findings)
{
    bool is_any = false;
    for (const sys_bssid &bssid : sys_bssid_settings()) {
        if (!bssid.value) {
            findings->warning(place_of(bssid.setting), "not set: this radio has no BSSIDs");
        } else if (!is_bssid(*bssid.value)) {
            findings->error(place_of(bssid.setting), "%s is no BSSID",
                            check_quoted(*bssid.value).c_str());
        } else {
            is_any = true;
        }
    }
    if (!is_any) {
        findings->warning(place_of("wl_radio_num"),
                          "no radio has a BSSID: every location is refused");
    }
}

void check_bridge_address(const std::string &setting, const std::string &name,
                          check_findings *findings)
{
    const auto addresses = interface_addresses_of(name.c_str());
    if (!addresses || addresses->empty()) {
        findings->warning(place_of(setting), "%s has no IPv4 address now",
                          check_quoted(name).c_str());
        findings->mark_as_of_network();
    }
}

void check_bridge(const check_subject &subject, bool has_lan_address, check_findings *findings)
{
    const std::optional<sys_lan_bridge> bridge = sys_find_lan_bridge();
    if (bridge && bridge->name && sys_is_interface_name(*bridge->name)) {
        check_bridge_address(bridge->setting, *bridge->name, findings);
    } else if (bridge && bridge->name) {
        findings->error(place_of(bridge->setting), "%s is no name of an interface",
                        check_quoted(*bridge->name).c_str());
    } else if (bridge) {
        findings->error(place_of(bridge->setting), "not set: the LAN bridge has no name");
    } else if (!has_lan_address) {
        findings->warning(place_of("lan0_ifnames"), "no bridge has wl0: the LAN address is %s",
                          subject.config.lan_ip_address);
    }
}

} // namespace

void check_nvram(const check_subject &subject, bool has_lan_address, check_findings *findings)
{
    check_settings(findings);
    check_mode(findings);
    check_debug_level(findings);
    check_bssids(findings);
    check_bridge(subject, has_lan_address, findings);
}
