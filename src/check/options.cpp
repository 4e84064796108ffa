#include "check/options.h"

#include <arpa/inet.h>

#include <optional>
#include <string>

#include "config/record.h"
#include "handles/cjson.h"
#include "velm_sys_params.h"
#include "velm_utils.h"

namespace {

check_place place_of(const char *option)
{
    return {std::string{"command line: "} + option, 0};
}

bool is_ipv4_address(const char *text)
{
    in_addr address{};
    return inet_pton(AF_INET, text, &address) == 1;
}

bool is_interface_name(const char *text)
{
    return sys_is_interface_name(text);
}

bool is_mac_address(const char *text)
{
    velm_mac_address address{};
    return velm_utils_parse_mac_address(text, address.data());
}

using text_check = bool (*)(const char *text);

void check_one(const char *option, const std::optional<std::string> &value, text_check is_good,
               const char *wanted, check_findings *findings)
{
    if (value && !is_good(value->c_str())) {
        findings->error(place_of(option), "%s is no %s", check_quoted(*value).c_str(), wanted);
    }
}

void check_serial_number(const std::optional<std::string> &value, check_findings *findings)
{
    const std::size_t longest = config_word_size - 1;
    if (value && value->size() > longest) {
        findings->error(place_of("-s"), "%zu characters: it is cut to %zu", value->size(), longest);
    }
}

void check_bssids(const std::string &list, check_findings *findings)
{
    const json_ptr bssids = velm_split_string(list.c_str(), ",");
    const cJSON *bssid = nullptr;
    cJSON_ArrayForEach(bssid, bssids)
    {
        if (!is_mac_address(bssid->valuestring)) {
            findings->error(place_of("-b"), "%s is no BSSID",
                            check_quoted(bssid->valuestring).c_str());
        }
    }
    findings->warning(place_of("-b"), "the BSSIDs of the platform always take its place");
}

} // namespace

void check_options(const velm_command_line &given, check_findings *findings)
{
    check_one("-i", given.lan_ip_address, is_ipv4_address, "IPv4 address", findings);
    check_one("-n", given.lan_name, is_interface_name, "name of an interface", findings);
    check_serial_number(given.serial_number, findings);
    check_one("-m", given.mac_address, is_mac_address, "MAC address", findings);
    if (given.bssids) {
        check_bssids(*given.bssids, findings);
    }
}
