#include <optional>
#include <string>

#include "http_server/answer.h"
#include "http_server/log.h"
#include "http_server/routes.h"
#include "ipc/report_queue.h"
#include "logger/fatal.h"
#include "request/input.h"
#include "velm_location_policy_ipc.h"
#include "velm_utils.h"

/// What /location does once every check has passed: it hands the location on as it came.

namespace {

constexpr char handler_name[] = "http_method_location_handle";

/// An object, or an array that is not empty; null, and logged, for anything else.
const cJSON *location_data(const cJSON *body)
{
    const cJSON *const location = cJSON_GetObjectItemCaseSensitive(body, "location");
    if (location == nullptr || (cJSON_IsArray(location) && cJSON_GetArraySize(location) == 0)) {
        LOG_ERROR("%s - no location data", handler_name);
        return nullptr;
    }
    if (!cJSON_IsObject(location) && !cJSON_IsArray(location)) {
        LOG_ERROR("%s - invalid location data", handler_name);
        return nullptr;
    }
    return location;
}

void hand_over(const char *ip, const cJSON *auth, const cJSON *location)
{
    if (cJSON_IsObject(location)) {
        velm_location_policy_ipc_send(ip, auth, location);
        return;
    }
    const cJSON *element = nullptr;
    cJSON_ArrayForEach(element, location)
    {
        velm_location_policy_ipc_send(ip, auth, element);
    }
}

/// A location that was answered with 200 is not dropped later, so the whole list has room or none of
/// it is taken. False, with a line in the log, while clients do not read and others fill the queue.
bool has_room(const char *ip, const cJSON *auth, const cJSON *location)
{
    const int count = cJSON_IsArray(location) ? cJSON_GetArraySize(location) : 1;
    if (location_queue_has_room(auth, static_cast<std::size_t>(count))) {
        return true;
    }
    const char *const dev_id = velm_utils_get_field_value_from_json_object(auth, "deviceId");
    LOG_WARN("%s - no room for %d locations while a client does not read, device id %s,"
             " ip address %s",
             handler_name, count, dev_id == nullptr ? "" : dev_id, ip);
    return false;
}

http_outcome take_location(const http_asked &asked)
{
    const cJSON *const location = location_data(asked.body);
    if (location == nullptr) {
        return {http_status_bad_request, "no valid location data"};
    }
    const std::optional<std::string> ip = request_address_text(request_peer_address(asked.request));
    if (!ip.has_value()) {
        // The phone did its part and cannot help it: it is not asked to retry.
        LOG_ERROR("%s - invalid ip address", handler_name);
        return {};
    }
    if (!has_room(ip->c_str(), asked.auth, location)) {
        return {http_status_unavailable};
    }
    hand_over(ip->c_str(), asked.auth, location);
    return {};
}

} // namespace

void http_method_location_handle(evhtp_request_t *request, int break_code)
{
    http_server_answer(request, break_code, {handler_name, "/location", take_location, true});
}
