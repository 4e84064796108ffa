#include "request/refusal.h"

#include <optional>
#include <string>

#include "logger/common_logger.h"
#include "request/input.h"
#include "text/utf8.h"
#include "velm_utils.h"

namespace {

constexpr char log_category[] = "velm_http_server";

/// Twice the length of the ids that the apps make.
constexpr int shown_id_limit = 72;

/// How much of the text is shown: whole characters only.
int shown_length(const char *text)
{
    int length = 0;
    while (length < shown_id_limit && text[length] != '\0') {
        ++length;
    }
    while (length > 0 && utf8_is_continuation(text[length])) {
        --length;
    }
    return length;
}

} // namespace

void velm_request_log_refusal(const char *check, const char *reason,
                              const std::optional<in_addr> &client, const char *device_id)
{
    if (!common_logger_writes(log_category, LOG_LEVEL_WARN)) {
        return;
    }
    const char *const shown_id = device_id == nullptr || *device_id == '\0' ? "-" : device_id;
    // The id last: what a stranger writes into it cannot be taken for the rest of the line.
    LOG_WARN("%s - %s: %s, ip: %s, device id: %.*s", "request_refused", check, reason,
             request_address_text(client).value_or("-").c_str(), shown_length(shown_id), shown_id);
}

void velm_request_log_refusal_of(const evhtp_request_t *request, const char *check,
                                 const char *reason, const cJSON *auth)
{
    const char *const device_id =
        auth == nullptr ? nullptr : velm_utils_get_field_value_from_json_object(auth, "deviceId");
    velm_request_log_refusal(check, reason, request_peer_address(request), device_id);
}
