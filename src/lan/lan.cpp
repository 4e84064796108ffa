#include "lan/lan.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cutils/interface_addresses.h"
#include "logger/common_logger.h"
#include "velm_http_server.h"
#include "velm_main.h"
#include "velm_ssdp_server.h"

namespace {

constexpr char log_category[] = "velm_lan";

struct module_state {
    velm_config *config = nullptr;
    bool platform_has_bridge = false;
};
module_state state;

/// Where the servers must go when the bridge has addresses, but not the one in use.
std::optional<std::string> address_to_move_to()
{
    const auto present = interface_addresses_of(state.config->lan_name);
    const std::string in_use = velm_config_lan_ip_address(state.config);
    if (!present || present->empty() ||
        std::find(present->begin(), present->end(), in_use) != present->end()) {
        return std::nullopt;
    }
    LOG_INFO("%s - %s has no %s, but %s", __func__, state.config->lan_name, in_use.c_str(),
             present->front().c_str());
    return present->front();
}

void stay_on_the_bridge()
{
    const std::optional<std::string> address = address_to_move_to();
    if (address) {
        netlink_ip_address_changed(state.config->lan_name, address->c_str());
    }
}

/// When that cannot be read, what was announced is believed.
bool has_gone_again(const char *ifname, const char *address)
{
    const auto present = interface_addresses_of(ifname);
    return present && std::find(present->begin(), present->end(), address) == present->end();
}

/// Null: any may have come.
void tell_servers(const char *address)
{
    velm_http_server_address_came();
    velm_ssdp_server_address_came(address);
}

} // namespace

void velm_lan_settle(velm_config *config, bool platform_has_bridge)
{
    state = {config, platform_has_bridge};
    const auto address = platform_has_bridge ? address_to_move_to() : std::nullopt;
    if (address) {
        velm_config_copy_text(config->lan_ip_address, sizeof config->lan_ip_address,
                              address->c_str());
    }
}

void velm_lan_address_came(const char *ifname, const char *address, void *,
                           common_netlink_observer *)
{
    if (std::string_view{ifname} == state.config->lan_name && has_gone_again(ifname, address)) {
        LOG_DEBUG("%s - %s has lost %s again", __func__, ifname, address);
        return;
    }
    netlink_ip_address_changed(ifname, address);
    tell_servers(address);
}

void velm_lan_address_went(const char *address)
{
    if (address == nullptr) {
        if (state.platform_has_bridge) {
            stay_on_the_bridge();
        }
        tell_servers(nullptr);
    } else if (address == velm_config_lan_ip_address(state.config)) {
        stay_on_the_bridge();
    }
}
