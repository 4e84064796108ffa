#include "velm_main.h"

#include <string>
#include <string_view>
#include <utility>

#include "async/common_async.h"
#include "logger/fatal.h"
#include "metrics/metrics.h"
#include "velm_http_server.h"
#include "velm_location_policy_ipc.h"
#include "velm_ssdp_server.h"

namespace {

constexpr char log_category[] = "velm_main";

struct module_state {
    event_base *base = nullptr;
    velm_config *config = nullptr;
    std::string address; // of the LAN, in use
    std::time_t address_since = 0;
};
module_state state;

/// What the entry point's own callback says has the entry point's category.
namespace entry_point {

constexpr char log_category[] = "main";

void log_new_address(const char *ifname, const char *address)
{
    LOG_TRACE("%s - %s new ip: %s", "netlink_ip_address_changed", ifname == nullptr ? "?" : ifname,
              address == nullptr ? "?" : address);
}

} // namespace entry_point

void note_address(const velm_config *config)
{
    std::string address = config != nullptr ? velm_config_lan_ip_address(config) : "";
    if (address == state.address) {
        return;
    }
    if (!state.address.empty()) {
        metrics_count(metric::lan_moves);
    }
    state.address = std::move(address);
    state.address_since = std::time(nullptr);
}

void start_servers(void *, short, common_async_context *) noexcept
{
    http_server_start();
    ssdp_server_start();
    location_policy_ipc_start();
}

} // namespace

void velm_main_set_event_base(event_base *base)
{
    state.base = base;
    velm_http_server_set_event_base(base);
    velm_ssdp_server_set_event_base(base);
    velm_location_policy_ipc_set_event_base(base);
}

void velm_main_init(velm_config *config)
{
    LOG_TRACE("%s", __func__);
    state.config = config;
    note_address(config);
    velm_http_server_init(config);
    velm_ssdp_server_init(config);
    velm_location_policy_ipc_init(config);
}

std::time_t velm_main_address_since()
{
    return state.address_since;
}

void velm_main_start()
{
    common_async_action_call(start_servers, nullptr);
}

void velm_main_deinit()
{
    velm_http_server_stop();
    ssdp_server_stop();
    location_policy_ipc_stop();
}

void netlink_ip_address_changed(const char *ifname, const char *address)
{
    entry_point::log_new_address(ifname, address);
    if (ifname == nullptr || address == nullptr || *ifname == '\0' || *address == '\0') {
        return;
    }
    velm_config *config = state.config;
    if (std::string_view{ifname} != config->lan_name ||
        address == velm_config_lan_ip_address(config)) {
        return;
    }
    velm_config_copy_text(config->lan_ip_address, sizeof config->lan_ip_address, address);
    velm_main_deinit();
    velm_main_init(config);
    velm_main_start();
}
