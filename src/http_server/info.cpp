#include <string>
#include <utility>

#include "config/bssids.h"
#include "http_server/answer.h"
#include "http_server/log.h"
#include "http_server/routes.h"
#include "logger/fatal.h"
#include "velm_challenge_engine.h"

namespace {

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

http_outcome info(const http_asked & /*asked*/)
{
    if (state.info.empty()) {
        state.info = info_text(http_server_config());
    }
    return {http_status_ok, nullptr, nullptr, state.info.c_str()};
}

http_outcome challenge(const http_asked & /*asked*/)
{
    const char *const challenge = velm_challenge_engine_generate_challenge();
    if (challenge == nullptr) {
        return {http_status_unavailable, "too many pending challenges"};
    }
    json_ptr response_json{cJSON_CreateObject()};
    REQUIRE_MEMORY(response_json, "response_json");
    REQUIRE_MEMORY(cJSON_AddStringToObject(response_json.get(), "challenge", challenge),
                   "cJSON_AddStringToObject(response_json, \"challenge\", challenge)");
    return {http_status_ok, nullptr, std::move(response_json)};
}

} // namespace

void http_server_forget_info()
{
    state = {};
}

void http_method_info_handle(evhtp_request_t *request, int break_code)
{
    http_server_answer(request, break_code, {__func__, "/info", info, false});
}

void http_method_challenge_handle(evhtp_request_t *request, int break_code)
{
    http_server_answer(request, break_code, {__func__, "/challenge", challenge, false});
}
