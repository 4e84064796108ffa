#include "velm_request_device_check.h"

#include <optional>
#include <string>

#include "logger/common_logger.h"
#include "request/record.h"
#include "text/or_empty.h"
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

/// What the phone named, and what would have done: it may know the access point by another radio.
std::string bssids_hint(const char *client_bssid, const cJSON *bssids)
{
    std::string hint = std::string{"named "} + client_bssid;
    const char *separator = ", ours: ";
    const cJSON *entry = nullptr;
    cJSON_ArrayForEach(entry, bssids)
    {
        hint += separator;
        hint += text_or_empty(cJSON_GetStringValue(entry));
        separator = ", ";
    }
    return hint;
}

int refuse(velm_request_preprocessor &p, const char *why, const cJSON *bssids)
{
    p.explained = why;
    p.hint = bssids_hint(text_or_empty(p.client_bssid), bssids);
    return VELM_BREAK_BSSID;
}

int device_check(velm_request_preprocessor &p)
{
    const char *const client_bssid = p.client_bssid;
    if (client_bssid == nullptr || *client_bssid == '\0') {
        return VELM_BREAK_BSSID;
    }
    velm_mac_address wanted{};
    if (!velm_utils_parse_mac_address(client_bssid, wanted.data())) {
        LOG_ERROR("%s - invalid bssid %s", check_name, client_bssid);
        return refuse(p, "the BSSID that it named is no MAC address", nullptr);
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
    return bssids->child == nullptr
               ? refuse(p, "this access point knows no BSSID of its own", nullptr)
               : refuse(p, "the BSSID that it named is none of this access point's", bssids);
}

std::optional<int> device_check_run(velm_request_preprocessor &p)
{
    LOG_TRACE("%s [%p] - start", check_name, static_cast<const void *>(&p));
    const int code = device_check(p);
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
