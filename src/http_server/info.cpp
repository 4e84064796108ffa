#include <string>

#include "config/bssids.h"
#include "http_server/routes.h"
#include "logger/fatal.h"
#include "request/refusal.h"
#include "velm_challenge_engine.h"
#include "velm_request_preprocessor.h"

namespace {

constexpr char log_category[] = "velm_http_server";

constexpr char HTTP_SERVER_API_VERSION[] = "1.2.0";

struct module_state {
    std::string info; // the reply of "/info", empty until one asks
};
module_state state;

std::string info_text(const velm_config *velm_config)
{
    const json_ptr response_json{cJSON_CreateObject()};
    REQUIRE_MEMORY(response_json, "response_json");
    cJSON *const object = response_json.get();
    REQUIRE_MEMORY(
        cJSON_AddStringToObject(object, "serialNumber", velm_config->serial_number),
        "cJSON_AddStringToObject(response_json, \"serialNumber\", velm_config->serial_number)");
    REQUIRE_MEMORY(cJSON_AddStringToObject(object, "vendorId", velm_config->vendor_id),
                   "cJSON_AddStringToObject(response_json, \"vendorId\", velm_config->vendor_id)");
    REQUIRE_MEMORY(cJSON_AddStringToObject(object, "version", HTTP_SERVER_API_VERSION),
                   "cJSON_AddStringToObject(response_json, \"version\", HTTP_SERVER_API_VERSION)");
    cJSON_AddItemToObject(object, "bssids", velm_config_bssids_copy(*velm_config).release());
    REQUIRE_MEMORY(
        cJSON_AddNumberToObject(object, "pairingsLimit", velm_config->pairings_limit),
        "cJSON_AddNumberToObject(response_json, \"pairingsLimit\", velm_config->pairings_limit)");
    const json_text response_buf{cJSON_PrintUnformatted(object)};
    REQUIRE_MEMORY(response_buf, "response_buf");
    return response_buf.get();
}

void reply_info(evhtp_request_t *request)
{
    if (state.info.empty()) {
        state.info = info_text(http_server_config());
    }
    http_server_reply_text(request, state.info.c_str());
}

void reply_challenge(evhtp_request_t *request)
{
    const char *const challenge = velm_challenge_engine_generate_challenge();
    if (challenge == nullptr) {
        const velm_request_body parsed = velm_request_parse_request_body(request);
        velm_request_log_refusal_of(request, "/challenge", "too many pending challenges",
                                    cJSON_GetObjectItemCaseSensitive(parsed.body.get(), "auth"));
        http_server_reply_status(request, EVHTP_RES_SERVUNAVAIL);
        return;
    }
    const json_ptr response_json{cJSON_CreateObject()};
    REQUIRE_MEMORY(response_json, "response_json");
    REQUIRE_MEMORY(cJSON_AddStringToObject(response_json.get(), "challenge", challenge),
                   "cJSON_AddStringToObject(response_json, \"challenge\", challenge)");
    http_server_reply_json(request, response_json.get());
}

} // namespace

void http_server_forget_info()
{
    state = {};
}

void http_method_info_handle(evhtp_request_t *request, int break_code)
{
    LOG_TRACE("%s - start", __func__);
    if (break_code != 0) {
        http_server_reply_status(request, http_server_status_from_break_code(break_code));
    } else {
        reply_info(request);
    }
    LOG_TRACE("%s - done", __func__);
}

void http_method_challenge_handle(evhtp_request_t *request, int break_code)
{
    LOG_TRACE("%s - start", __func__);
    if (break_code != 0) {
        http_server_reply_status(request, http_server_status_from_break_code(break_code));
    } else {
        reply_challenge(request);
    }
    LOG_TRACE("%s - done", __func__);
}
