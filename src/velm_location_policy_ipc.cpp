#include "velm_location_policy_ipc.h"

#include <velm/location_policy.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>

#include "async/common_async.h"
#include "handles/argument.h"
#include "ipc/report_queue.h"
#include "logger/fatal.h"
#include "metrics/metrics.h"
#include "story/story.h"
#include "velm_cloud_messaging.h"
#include "velm_ipc.h"
#include "velm_nvram_pairings.h"
#include "velm_utils.h"

namespace {

constexpr char log_category[] = "velm_location_policy_ipc";

// One packet can hold thousands of requests, and the loop takes one queued call a turn.
constexpr unsigned waiting_asks_limit = 256;

constexpr double latitude_max = 90; // degrees
constexpr double longitude_max = 180;

struct module_state {
    event_base *base = nullptr;
    const velm_config *config = nullptr;
    velm_ipc_ptr server;
    unsigned waiting_asks = 0;
    bool delivery_is_due = false; // the loop will call location_policy_ipc_send
    std::optional<velm_location_policy_last_report> last_report;
};
module_state state;

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

void report_set_position(velm_location_report &report, const location_values &values)
{
    report.rssi = number_to_rssi(values.rssi);
    report.latitude = values.latitude;
    report.longitude = values.longitude;
    report.horizontal_uncertainty1 = values.accuracy;
    report.horizontal_uncertainty2 = values.accuracy; // a circle
    report.height = values.altitude;
    report.height_kind = VELM_LOCATION_HEIGHT_KIND;
    report.vertical_uncertainty = values.vertical_accuracy;
}

struct report_source {
    const cJSON *pairing;
    std::array<std::uint8_t, 4> ip;
    velm_mac_address bssid;
};

velm_location_report report_build(const report_source &source, const location_values &values)
{
    velm_location_report report{};
    report.valid = 1;
    std::memcpy(report.phone_ip, source.ip.data(), sizeof report.phone_ip);
    copy_member(report.os_version, source.pairing, "os_version");
    copy_member(report.phone_model, source.pairing, "dev_model");
    report.time = values.time.value_or(build_time());
    report.bssid_present = 1;
    std::memcpy(report.bssid, source.bssid.data(), sizeof report.bssid);
    report_set_position(report, values);
    return report;
}

void report_send(const char *caller, const char *dev_id, const velm_location_report &report)
{
    LOG_TRACE("%s - resp       size: %zu", caller, sizeof report);
    LOG_TRACE("%s -  .location size: %zu", caller, sizeof report);
    LOG_TRACE("%s - time_t     size: %zu", caller, sizeof report.time);
    if (velm_ipc_broadcast_report(state.server.get(), &report, sizeof report) == 0) {
        LOG_ERROR("%s - failed", caller);
    }
    in_addr_t phone{};
    std::memcpy(&phone, report.phone_ip, sizeof phone);
    story_report_done(dev_id, phone);
}

bool is_empty(const char *text)
{
    return text == nullptr || *text == '\0';
}

const char *device_id_of(const location_source &sent_by)
{
    return velm_utils_get_field_value_from_json_object(sent_by.auth.get(), "deviceId");
}

/// The phone was answered with 200 by then.
void refusal_tell(const location_source &sent_by, const char *why)
{
    in_addr_t phone{};
    (void)velm_utils_parse_ip_address(sent_by.ip.c_str(), reinterpret_cast<std::uint8_t *>(&phone));
    story_visit_came({.address = phone,
                      .device_id = device_id_of(sent_by),
                      .route = "/location",
                      .check = story_location_check,
                      .why = why});
}

/// Checks what the phone said of itself, in this order; false, with a line in the log, when it will
/// not do. The caller keeps the pairing that the source borrows.
bool source_check(const char *caller, const location_source &sent_by, json_ptr &pairing,
                  report_source &source)
{
    const cJSON *const auth = sent_by.auth.get();
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
    if (!velm_utils_parse_ip_address(sent_by.ip.c_str(), source.ip.data())) {
        LOG_ERROR("%s - invalid ip address %s", caller, sent_by.ip.c_str());
        return false;
    }
    LOG_TRACE("%s - from ip: %s", caller, sent_by.ip.c_str());
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

/// A place that is on no map is no statement that anybody may transmit by. False, with a line in the
/// log.
bool values_check(const char *caller, const location_source &sent_by, const location_values &values)
{
    const char *const dev_id = device_id_of(sent_by);
    for (const double number : {values.latitude, values.longitude, values.accuracy, values.altitude,
                                values.vertical_accuracy, values.rssi}) {
        if (!std::isfinite(number)) {
            LOG_WARN("%s - a number that is not finite, device id %s, ip address %s", caller,
                     dev_id, sent_by.ip.c_str());
            return false;
        }
    }
    if (std::abs(values.latitude) > latitude_max || std::abs(values.longitude) > longitude_max) {
        LOG_WARN("%s - latitude %g or longitude %g is none, device id %s, ip address %s", caller,
                 values.latitude, values.longitude, dev_id, sent_by.ip.c_str());
        return false;
    }
    return true;
}

void remember_report(const location_source &sent_by, const location_values &values)
{
    metrics_count(metric::reports);
    velm_location_policy_last_report &last = state.last_report.emplace();
    last.at = std::chrono::system_clock::now();
    last.device_id = velm_utils_get_field_value_from_json_object(sent_by.auth.get(), "deviceId");
    last.address = sent_by.ip;
    last.accuracy_m = values.accuracy;
}

/// Null when the location may go to the clients; else why not.
const char *location_refusal(const char *caller, const location_source &sent_by,
                             const location_values &values, json_ptr &pairing,
                             report_source &source)
{
    if (!source_check(caller, sent_by, pairing, source)) {
        return "its sender is not paired any more, or its address or BSSID is none";
    }
    return values_check(caller, sent_by, values) ? nullptr : "it is on no map";
}

void deliver(const char *caller, const location_source &sent_by, const location_values &values)
{
    if (state.server == nullptr) {
        LOG_ERROR("%s - no IPC server", caller);
        refusal_tell(sent_by, "no socket for local clients is open");
        return;
    }
    json_ptr pairing;
    report_source source{};
    const char *const refusal = location_refusal(caller, sent_by, values, pairing, source);
    if (refusal == nullptr) {
        report_send(caller, device_id_of(sent_by), report_build(source, values));
        remember_report(sent_by, values);
    } else {
        refusal_tell(sent_by, refusal);
    }
}

void location_policy_ipc_send(void *, short, common_async_context *) noexcept;

/// While a packet waits for a client the next delivery waits too.
bool may_deliver()
{
    return location_queue_size() > 0 &&
           (state.server == nullptr || velm_ipc_is_drained(state.server.get()));
}

/// After each step that may have made a delivery possible. One is made per turn of the loop. When a
/// packet that waited has left, or its client is dropped, they go on here.
void deliveries_go_on()
{
    if (state.delivery_is_due || !may_deliver()) {
        return;
    }
    state.delivery_is_due = true;
    common_async_action_call(location_policy_ipc_send, nullptr);
}

void location_policy_ipc_send(void *, short, common_async_context *) noexcept
{
    state.delivery_is_due = false;
    if (!may_deliver()) {
        return;
    }
    deliver(__func__, location_queue_first_source(), location_queue_first_values());
    location_queue_remove_first();
    deliveries_go_on();
}

void drained_handler(velm_ipc *)
{
    deliveries_go_on();
}

struct location_ask {
    std::uint32_t timeout;
    std::uint32_t type;
    std::uint32_t seq; // of the request
};

void ask_for_location(void *user_data, short, common_async_context *) noexcept
{
    const std::unique_ptr<location_ask> ask = adopt<location_ask>(user_data);
    --state.waiting_asks;
    story_run_asked(ask->seq);
    velm_cloud_messaging_push_to_all(ask->timeout, ask->type);
}

bool no_paired_devices_respond(velm_ipc *server, std::uint32_t seq)
{
    velm_location_report report{};
    report.time = build_time();
    return velm_ipc_respond(server, seq, &report, sizeof report, VELM_STATUS_NO_PAIRED_DEVICES) !=
           0;
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
    story_request_wants(seq, timeout);
    if (type != VELM_LOCATION_REQUEST) {
        LOG_ERROR("%s - unsupported command (%u)", __func__, type);
        return 0;
    }
    if (velm_nvram_pairings_count_pairings() == 0) {
        LOG_TRACE("%s - no paired devices", __func__);
        if (!no_paired_devices_respond(server, seq)) {
            LOG_ERROR("%s - failed", __func__);
        }
        story_request_refused(seq, story_cause::no_pairings);
        return 1;
    }
    if (state.waiting_asks == waiting_asks_limit) {
        return 0;
    }
    LOG_TRACE("%s - push to paired devices", __func__);
    ++state.waiting_asks;
    common_async_action_call(ask_for_location,
                             release_new<location_ask>(location_ask{timeout, velm_push_data, seq}));
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
    if (location_queue_size() > 0) {
        // The clients for which they waited have lost their connections.
        LOG_ERROR("%s - %zu locations were not handed on", __func__, location_queue_size());
    }
    location_queue_clear();
    state.delivery_is_due = false;
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
        velm_ipc_set_drained_handler(state.server.get(), drained_handler);
    }
}

void location_policy_ipc_stop()
{
    LOG_INFO("%s", __func__);
    state.server.reset();
    story_clients_gone();
    deliveries_go_on();
}

const velm_ipc *velm_location_policy_ipc_server()
{
    return state.server.get();
}

const std::optional<velm_location_policy_last_report> &velm_location_policy_ipc_last_report()
{
    return state.last_report;
}

void velm_location_policy_ipc_send(const char *ip, const cJSON *auth, const cJSON *location)
{
    REQUIRE_NOT_NULL(ip, "ip");
    REQUIRE_NOT_NULL(auth, "auth");
    REQUIRE_NOT_NULL(location, "location");
    if (!location_queue_add(__func__, ip, auth, location)) {
        LOG_ERROR("%s - too many locations wait", __func__);
        return;
    }
    deliveries_go_on();
}
