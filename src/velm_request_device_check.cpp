#include "velm_request_device_check.h"

#include <optional>

#include "logger/common_logger.h"
#include "request/record.h"
#include "velm_utils.h"

namespace {

constexpr char log_category[] = "velm_request_device_check";
constexpr char check_name[] = "make_device_check";

struct module_state {
    const velm_config *config = nullptr;
};
module_state state;

bool is_bssid(const cJSON *entry, const velm_mac_address &wanted)
{
    const char *const text = cJSON_GetStringValue(entry);
    velm_mac_address bssid{};
    return text != nullptr && *text != '\0' && velm_utils_parse_mac_address(text, bssid.data()) &&
           bssid == wanted;
}

int device_check(const char *client_bssid)
{
    if (client_bssid == nullptr || *client_bssid == '\0') {
        return VELM_BREAK_BSSID;
    }
    velm_mac_address wanted{};
    if (!velm_utils_parse_mac_address(client_bssid, wanted.data())) {
        LOG_ERROR("%s - invalid bssid %s", check_name, client_bssid);
        return VELM_BREAK_BSSID;
    }
    const cJSON *const bssids = state.config->bssids_list.get();
    if (bssids == nullptr) {
        return VELM_BREAK_NONE;
    }
    const cJSON *entry = nullptr;
    cJSON_ArrayForEach(entry, bssids)
    {
        if (is_bssid(entry, wanted)) {
            return VELM_BREAK_NONE;
        }
    }
    LOG_DEBUG("%s - unknown bssid: %s", check_name, client_bssid);
    return VELM_BREAK_BSSID;
}

std::optional<int> device_check_run(velm_request_preprocessor &p)
{
    LOG_TRACE("%s [%p] - start", check_name, static_cast<const void *>(&p));
    const int code = device_check(p.client_bssid);
    LOG_TRACE("%s [%p] - finished", check_name, static_cast<const void *>(&p));
    return code;
}

} // namespace

void velm_request_device_check_init(const velm_config *config)
{
    LOG_TRACE("%s", __func__);
    state.config = config;
}

void make_device_check(velm_request_preprocessor *p)
{
    common_async_action_call(preproc_check_run<device_check_run>, p);
}
