#include "velm_sys_params.h"

#include <nvram.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "handles/malloc.h"
#include "logger/fatal.h"
#include "velm_utils.h"

namespace {

constexpr char log_category[] = "velm_sys_params";
constexpr char address_look_up[] = "get_ipv4_address_wlif"; // in the log, whichever step it is
constexpr char primary_interface[] = "wl0";
constexpr int bridges_max = 16;
constexpr long radios_max = 32;
constexpr long ssids_max = 64;
constexpr std::size_t interface_name_max = 15; // IFNAMSIZ without its NUL

std::optional<std::string> nvram_text(const std::string &name)
{
    const malloc_text value{nvram_unf_get(name.c_str())};
    return value == nullptr ? std::nullopt : std::optional<std::string>{value.get()};
}

/// An access point cannot have an empty one: a platform that sets it has none yet.
std::optional<std::string> hardware_address(const std::string &name)
{
    std::optional<std::string> address = nvram_text(name);
    return address && address->empty() ? std::nullopt : std::move(address);
}

/// A count as base-10 text, cut to `limit`; a negative one and text that is no number count as 0.
int parse_count(const std::string &text, long limit)
{
    return static_cast<int>(std::clamp(std::strtol(text.c_str(), nullptr, 10), 0L, limit));
}

bool has_member(const std::string &members, const char *interface)
{
    const json_ptr names = velm_split_string(members.c_str(), " ");
    const cJSON *name = nullptr;
    cJSON_ArrayForEach(name, names)
    {
        if (std::string_view{name->valuestring} == interface) {
            return true;
        }
    }
    return false;
}

/// The first bridge that the first radio's primary interface belongs to.
std::optional<sys_lan_bridge> find_bridge(const char *caller)
{
    for (int index = 0; index < bridges_max; ++index) {
        const std::string key = "lan" + std::to_string(index);
        const std::optional<std::string> members = nvram_text(key + "_ifnames");
        if (members && has_member(*members, primary_interface)) {
            sys_lan_bridge bridge{key + "_ifname", nvram_text(key + "_ifname")};
            LOG_TRACE("%s - brindex[%d], br_name=%s", caller, index,
                      bridge.name ? bridge.name->c_str() : "(null)");
            return bridge;
        }
    }
    return std::nullopt;
}

std::optional<std::string> find_lan_bridge()
{
    std::optional<sys_lan_bridge> bridge = find_bridge(__func__);
    return bridge ? std::move(bridge->name) : std::nullopt;
}

bool is_interface_character(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '.' || c == ':' || c == '-';
}

/// Asks for every IPv4 address of the interface, one a line.
common_launched begin_to_query_addresses(const std::string &interface)
{
    const std::string command =
        "ip -f inet addr show " + interface + " | sed -En -e 's/.*inet ([0-9.]+).*/\\1/p'";
    LOG_TRACE("%s - running command: %s", address_look_up, command.c_str());
    return common_launch_begin(command.c_str());
}

/// What it printed, or nothing.
std::optional<std::string> addresses_printed_by(common_launched command)
{
    int status = 0;
    std::string output;
    if (common_launch_end(std::move(command), &status, &output) != 0 || status != 0 ||
        !output.ends_with('\n')) {
        return std::nullopt;
    }
    output.pop_back();
    return output;
}

void append_bssid(cJSON *bssids, const std::string &bssid)
{
    json_ptr item{cJSON_CreateString(bssid.c_str())};
    REQUIRE_MEMORY(item, "item");
    cJSON_AddItemToArray(bssids, item.release());
}

void get_bssids_for_radio(std::vector<sys_bssid> *bssids, int radio)
{
    const std::string key = "wl" + std::to_string(radio);
    const std::optional<std::string> max_ssid = nvram_text(key + "_maxssid");
    if (!max_ssid) {
        LOG_ERROR("%s - failed to get max ssid num for wl%d", __func__, radio);
        bssids->push_back({key + "_maxssid", std::nullopt});
        return;
    }
    const std::optional<std::string> primary = hardware_address(key + "_hwaddr");
    if (!primary) {
        LOG_ERROR("%s - failed to get hwaddr for wl%d", __func__, radio);
        bssids->push_back({key + "_hwaddr", std::nullopt});
        return;
    }
    LOG_TRACE("%s - wl%d bssid is %s", __func__, radio, primary->c_str());
    bssids->push_back({key + "_hwaddr", primary});
    const int count = parse_count(*max_ssid, ssids_max);
    for (int ssid = 1; ssid < count; ++ssid) {
        const std::string setting = key + '.' + std::to_string(ssid) + "_hwaddr";
        const auto bssid = nvram_text(setting);
        if (bssid) {
            LOG_TRACE("%s - wl%d.%d bssid is %s", __func__, radio, ssid, bssid->c_str());
            bssids->push_back({setting, bssid});
        }
    }
}

} // namespace

common_launched get_ipv4_address_wlif_begin()
{
    const std::optional<std::string> bridge = find_lan_bridge();
    return bridge && sys_is_interface_name(*bridge) ? begin_to_query_addresses(*bridge)
                                                    : common_launched{nullptr, no_lan_bridge};
}

std::optional<std::string> get_ipv4_address_wlif_end(common_launched command)
{
    std::optional<std::string> addresses = addresses_printed_by(std::move(command));
    if (!addresses) {
        LOG_ERROR("%s - failed to get IP address for %s", address_look_up, primary_interface);
    }
    return addresses;
}

std::optional<std::string> get_ipv4_address_wlif()
{
    return get_ipv4_address_wlif_end(get_ipv4_address_wlif_begin());
}

std::optional<std::string> get_lanif_name_wlif()
{
    return find_lan_bridge();
}

std::optional<sys_lan_bridge> sys_find_lan_bridge()
{
    return find_bridge(__func__);
}

bool sys_is_interface_name(std::string_view name)
{
    return !name.empty() && name.size() <= interface_name_max && name != "." && name != ".." &&
           name.front() != '-' && std::all_of(name.begin(), name.end(), is_interface_character);
}

std::vector<sys_bssid> sys_bssid_settings()
{
    std::vector<sys_bssid> bssids;
    const std::optional<std::string> radios = nvram_text("wl_radio_num");
    const int count = radios ? parse_count(*radios, radios_max) : 0;
    for (int radio = 0; radio < count; ++radio) {
        get_bssids_for_radio(&bssids, radio);
    }
    return bssids;
}

json_ptr sys_bssids()
{
    json_ptr bssids{cJSON_CreateArray()};
    REQUIRE_MEMORY(bssids, "bssids");
    for (const sys_bssid &bssid : sys_bssid_settings()) {
        if (bssid.value) {
            append_bssid(bssids.get(), *bssid.value);
        }
    }
    return bssids;
}

std::optional<std::string> sys_serial_number()
{
    return nvram_text("ap_serial_number");
}

std::optional<std::string> sys_mac_address()
{
    return hardware_address("wl0_hwaddr");
}
