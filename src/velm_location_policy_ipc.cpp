#include "velm_location_policy_ipc.h"

#include <velm/location_policy.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

#include "async/common_async.h"
#include "handles/memory.h"
#include "logger/fatal.h"
#include "velm_cloud_messaging.h"
#include "velm_ipc.h"
#include "velm_nvram_pairings.h"
#include "velm_utils.h"

namespace {

constexpr char log_category[] = "velm_location_policy_ipc";

// One packet can hold thousands of requests, and the loop takes one queued call a turn.
constexpr unsigned waiting_asks_limit = 256;

// More than the elements of any one request's body, so only several of them together reach it.
constexpr unsigned waiting_deliveries_limit = 4096;

struct module_state {
    event_base *base = nullptr;
    const velm_config *config = nullptr;
    velm_ipc_ptr server;
    unsigned waiting_asks = 0;
    unsigned waiting_deliveries = 0;
};
module_state state;

/// A phone's location on its way to the loop.
struct location_delivery {
    std::string ip;
    json_ptr auth;
    json_ptr location;
};

std::uint32_t build_time()
{
    return static_cast<std::uint32_t>(std::time(nullptr));
}

template <std::size_t Size>
void copy_member(char (&field)[Size], const cJSON *object, const char *member)
{
    const char *const text = velm_utils_get_field_value_from_json_object(object, member);
    if (text != nullptr) {
        std::string_view{text}.copy(field, Size - 1); // the report was zeroed
    }
}

std::uint32_t report_time(const cJSON *location)
{
    const char *const text = velm_utils_get_field_value_from_json_object(location, "timestamp");
    unsigned long timestamp = 0;
    if (text != nullptr && velm_utils_parse_timestamp(text, &timestamp)) {
        return static_cast<std::uint32_t>(timestamp);
    }
    return build_time();
}

/// Toward zero; what does not fit becomes the nearest that does.
std::int16_t number_to_rssi(double number)
{
    using limits = std::numeric_limits<std::int16_t>;
    if (std::isnan(number)) {
        return 0;
    }
    return static_cast<std::int16_t>(
        std::clamp(number, double{limits::min()}, double{limits::max()}));
}

void report_set_position(velm_location_report &report, const cJSON *location)
{
    const auto number = [location](const char *member) {
        return velm_utils_get_number_value_from_json_object(location, member);
    };
    report.rssi = number_to_rssi(number("rssi"));
    report.latitude = number("latitude");
    report.longitude = number("longitude");
    report.horizontal_uncertainty1 = number("accuracy");
    report.horizontal_uncertainty2 = report.horizontal_uncertainty1; // a circle
    report.height = number("altitude");
    report.height_kind = VELM_LOCATION_HEIGHT_KIND;
    report.vertical_uncertainty = number("verticalAccuracy");
}

struct report_source {
    const cJSON *pairing;
    std::array<std::uint8_t, 4> ip;
    velm_mac_address bssid;
};

velm_location_report report_build(const report_source &source, const cJSON *location)
{
    velm_location_report report{};
    report.valid = 1;
    std::memcpy(report.phone_ip, source.ip.data(), sizeof report.phone_ip);
    copy_member(report.os_version, source.pairing, "os_version");
    copy_member(report.phone_model, source.pairing, "dev_model");
    report.time = report_time(location);
    report.bssid_present = 1;
    std::memcpy(report.bssid, source.bssid.data(), sizeof report.bssid);
    report_set_position(report, location);
    return report;
}

void report_send(const char *caller, const velm_location_report &report)
{
    LOG_TRACE("%s - resp       size: %zu", caller, sizeof report);
    LOG_TRACE("%s -  .location size: %zu", caller, sizeof report);
    LOG_TRACE("%s - time_t     size: %zu", caller, sizeof report.time);
    if (velm_ipc_broadcast_report(state.server.get(), &report, sizeof report) == 0) {
        LOG_ERROR("%s - failed", caller);
    }
}

/// Only the members that a delivery reads: each element of a body full of locations has a copy of
/// its own, and whatever else a phone put there would be multiplied by thousands. Null when memory
/// is exhausted.
json_ptr copy_auth(const cJSON *auth)
{
    json_ptr copy{cJSON_CreateObject()};
    for (const char *member : {"deviceId", "bssid"}) {
        const char *const text = velm_utils_get_field_value_from_json_object(auth, member);
        if (copy != nullptr && text != nullptr &&
            cJSON_AddStringToObject(copy.get(), member, text) == nullptr) {
            return nullptr;
        }
    }
    return copy;
}

bool is_empty(const char *text)
{
    return text == nullptr || *text == '\0';
}

/// Checks what the phone said of itself, in this order; false, with a line in the log, when it will
/// not do. The caller keeps the pairing that the source borrows.
bool delivery_check(const char *caller, const location_delivery &delivery, json_ptr &pairing,
                    report_source &source)
{
    const cJSON *const auth = delivery.auth.get();
    const char *const dev_id = velm_utils_get_field_value_from_json_object(auth, "deviceId");
    if (is_empty(dev_id)) {
        LOG_ERROR("%s - missing device id", caller);
        return false;
    }
    pairing = velm_nvram_pairings_select_pairing(dev_id);
    if (pairing == nullptr) {
        LOG_ERROR("%s - no pairing for device id %s", caller, dev_id);
        return false;
    }
    source.pairing = pairing.get();
    if (!velm_utils_parse_ip_address(delivery.ip.c_str(), source.ip.data())) {
        LOG_ERROR("%s - invalid ip address %s", caller, delivery.ip.c_str());
        return false;
    }
    LOG_TRACE("%s - from ip: %s", caller, delivery.ip.c_str());
    const char *const bssid = velm_utils_get_field_value_from_json_object(auth, "bssid");
    if (is_empty(bssid)) {
        LOG_ERROR("%s - missing bssid", caller);
        return false;
    }
    if (!velm_utils_parse_mac_address(bssid, source.bssid.data())) {
        LOG_ERROR("%s - invalid bssid %s", caller, bssid);
        return false;
    }
    LOG_TRACE("%s - declared bssid: %s", caller, bssid);
    return true;
}

void location_policy_ipc_send(void *user_data, short, common_async_context *) noexcept
{
    const std::unique_ptr<location_delivery> delivery = adopt<location_delivery>(user_data);
    --state.waiting_deliveries;
    if (state.server == nullptr) {
        LOG_ERROR("%s - no IPC server", __func__);
        return;
    }
    json_ptr pairing;
    report_source source{};
    if (delivery_check(__func__, *delivery, pairing, source)) {
        report_send(__func__, report_build(source, delivery->location.get()));
    }
}

struct location_ask {
    std::uint32_t timeout;
    std::uint32_t type;
};

void ask_for_location(void *user_data, short, common_async_context *) noexcept
{
    const std::unique_ptr<location_ask> ask = adopt<location_ask>(user_data);
    --state.waiting_asks;
    velm_cloud_messaging_push_to_all(ask->timeout, ask->type);
}

int no_paired_devices_respond(velm_ipc *server, std::uint32_t seq)
{
    velm_location_report report{};
    report.time = build_time();
    return velm_ipc_respond(server, seq, &report, sizeof report, VELM_STATUS_NO_PAIRED_DEVICES);
}

/// The first two bytes of the payload; the rest of it means nothing to us.
std::uint16_t request_timeout(const void *payload, std::size_t len)
{
    velm_location_request request{};
    std::memcpy(&request, payload, std::min(len, sizeof request));
    return request.timeout;
}

int location_server_cmd_handler(velm_ipc *server, std::uint32_t seq, std::uint16_t type,
                                const void *payload, std::size_t len)
{
    const std::uint16_t timeout = request_timeout(payload, len);
    LOG_TRACE("%s - id: %u type: %u len: %u", __func__, seq, type, static_cast<unsigned>(len));
    LOG_TRACE("%s - timeout: %u", __func__, timeout);
    if (type != VELM_LOCATION_REQUEST) {
        LOG_ERROR("%s - unsupported command (%u)", __func__, type);
        return 0;
    }
    if (velm_nvram_pairings_count_pairings() == 0) {
        LOG_TRACE("%s - no paired devices", __func__);
        if (no_paired_devices_respond(server, seq) == 0) {
            LOG_ERROR("%s - failed", __func__);
        }
        return 1;
    }
    if (state.waiting_asks == waiting_asks_limit) {
        return 0;
    }
    LOG_TRACE("%s - push to paired devices", __func__);
    ++state.waiting_asks;
    common_async_action_call(ask_for_location,
                             release_new<location_ask>(location_ask{timeout, velm_push_data}));
    return 1;
}

} // namespace

void velm_location_policy_ipc_set_event_base(event_base *base)
{
    state.base = base;
}

void velm_location_policy_ipc_init(const velm_config *config)
{
    LOG_TRACE("%s", __func__);
    REQUIRE_NOT_NULL(config, "config");
    state.config = config;
}

void location_policy_ipc_start()
{
    if (state.server != nullptr) {
        location_policy_ipc_stop();
    }
    REQUIRE_NOT_NULL(state.config, "config");
    if (is_empty(state.config->location_policy_ipc_sock)) {
        LOG_TRACE("%s - not configured", __func__);
        return;
    }
    // What went wrong is in the log by then; the daemon runs on without it.
    state.server = velm_ipc_create(state.base, nullptr, state.config->location_policy_ipc_sock);
    if (state.server != nullptr) {
        velm_ipc_set_cmd_handler(state.server.get(), location_server_cmd_handler);
    }
}

void location_policy_ipc_stop()
{
    LOG_INFO("%s", __func__);
    state.server.reset();
}

void velm_location_policy_ipc_send(const char *ip, const cJSON *auth, const cJSON *location)
{
    REQUIRE_NOT_NULL(ip, "ip");
    REQUIRE_NOT_NULL(auth, "auth");
    REQUIRE_NOT_NULL(location, "location");
    if (state.waiting_deliveries == waiting_deliveries_limit) {
        LOG_ERROR("%s - too many locations wait", __func__);
        return;
    }
    auto d = std::make_unique<location_delivery>();
    {
        const allocation_name naming{__func__, "d->ip"};
        d->ip = ip;
    }
    {
        const allocation_name naming{__func__, "d->auth"};
        d->auth = copy_auth(auth);
        REQUIRE_MEMORY(d->auth, "d->auth");
    }
    {
        const allocation_name naming{__func__, "d->location"};
        d->location.reset(cJSON_Duplicate(location, true));
        REQUIRE_MEMORY(d->location, "d->location");
    }
    ++state.waiting_deliveries;
    common_async_action_call(location_policy_ipc_send, d.release());
}
