#include "google/push_content.h"

#include <ctime>
#include <string>
#include <utility>

#include "config/bssids.h"
#include "json/text.h"
#include "logger/fatal.h"
#include "velm_utils.h"

namespace {

constexpr char log_category[] = "velm_cloud_messaging";

/// What the payload of both platforms carries.
struct push_fields {
    const char *serial_number;
    std::string now;
    std::string response_timeout;
    std::string location;
    const char *message_type;
    json_ptr bssids;
};

const char *message_type_name(std::uint32_t type)
{
    switch (type) {
    case velm_push_data:
        return "data";
    case velm_push_notification:
        return "notification";
    default:
        return "unknown";
    }
}

push_fields make_fields(const velm_config &config, std::uint32_t timeout, std::uint32_t type)
{
    const allocation_name naming{__func__, "location"};
    return {config.serial_number,
            velm_utils_timestamp_to_string(static_cast<unsigned long>(std::time(nullptr))),
            std::to_string(timeout),
            velm_config_lan_ip_address(&config) + ":" + std::to_string(config.http_server_port),
            message_type_name(type),
            velm_config_bssids_copy(config)};
}

cJSON *add_object(cJSON *parent, const char *name)
{
    cJSON *object = cJSON_AddObjectToObject(parent, name);
    REQUIRE_MEMORY(object, name);
    return object;
}

void add_text(cJSON *parent, const char *name, const char *text)
{
    REQUIRE_MEMORY(cJSON_AddStringToObject(parent, name, text), name);
}

void add_number(cJSON *parent, const char *name, double number)
{
    REQUIRE_MEMORY(cJSON_AddNumberToObject(parent, name, number), name);
}

void add_common_fields(cJSON *parent, const push_fields &fields)
{
    add_text(parent, "serialNumber", fields.serial_number);
    add_text(parent, "location", fields.location.c_str());
    add_text(parent, "timestamp", fields.now.c_str());
    add_text(parent, "timeout", fields.response_timeout.c_str());
    add_text(parent, "messageType", fields.message_type);
}

/// No time to live, and the BSSIDs as an array: Apple's payload is free JSON.
void add_apns(cJSON *message, push_fields fields, std::uint32_t type)
{
    cJSON *apns = add_object(message, "apns");
    cJSON *payload = add_object(apns, "payload");
    cJSON *aps = add_object(payload, "aps");
    add_number(aps, "content-available", 1); // also for a visible notification
    if (type == velm_push_notification) {
        cJSON *alert = add_object(aps, "alert");
        add_text(alert, "title-loc-key", "afc_request_location_notification_title");
        add_text(alert, "subtitle-loc-key", "afc_request_location_notification_subtitle");
        add_text(alert, "loc-key", "afc_request_location_notification_body");
    }
    add_common_fields(payload, fields);
    const bool added = cJSON_AddItemToObject(payload, "bssids", fields.bssids.get()) != 0;
    REQUIRE_CALL(added, "cJSON_AddItemToObject(payload, \"bssids\", bssids)", 0);
    (void)fields.bssids.release();
    add_text(add_object(apns, "fcm_options"), "analytics_label", "push_ios");
}

/// One day to live, and the BSSIDs as one text: FCM's data values must be strings.
void add_android(cJSON *message, const push_fields &fields, std::uint32_t type)
{
    cJSON *android = add_object(message, "android");
    add_text(android, "ttl", "86400s");
    if (type == velm_push_notification) {
        cJSON *notification = add_object(android, "notification");
        add_text(notification, "title_loc_key", "afc_request_location_notification_title");
        add_text(notification, "body_loc_key", "afc_request_location_notification_body");
        add_text(notification, "click_action", "AFC_SEND_LOCATION");
    }
    cJSON *data = add_object(android, "data");
    add_common_fields(data, fields);
    const json_text bssids_str{cJSON_PrintUnformatted(fields.bssids.get())};
    REQUIRE_MEMORY(bssids_str, "bssids_str");
    add_text(data, "bssids", bssids_str.get());
    add_text(add_object(android, "fcm_options"), "analytics_label", "push_android");
}

} // namespace

json_ptr velm_push_content_make(const velm_config &config, const cJSON *pairing,
                                std::uint32_t timeout, std::uint32_t type)
{
    const char *token = json_text_or_empty(pairing, "push_token");
    LOG_TRACE("%s - token: %s", "velm_cloud_messaging_generate_push_content", token);
    const velm_device_type device_type =
        velm_utils_device_type_from_string(json_text_or_empty(pairing, "dev_type"));

    json_ptr content{cJSON_CreateObject()};
    REQUIRE_MEMORY(content, "content");
    cJSON *message = add_object(content.get(), "message");
    add_text(message, "token", token);
    push_fields fields = make_fields(config, timeout, type);
    switch (device_type) {
    case velm_device_type::ios:
        add_apns(message, std::move(fields), type);
        break;
    case velm_device_type::android:
        add_android(message, fields, type);
        break;
    case velm_device_type::unknown:
        break;
    }
    return content;
}
