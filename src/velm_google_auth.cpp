#include "velm_google_auth.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "async/common_async.h"
#include "google/addresses.h"
#include "google/answer.h"
#include "google/jwt.h"
#include "handles/argument.h"
#include "http/http_client.h"
#include "logger/fatal.h"
#include "story/reason.h"

namespace {

constexpr char log_category[] = "velm_google_auth";

constexpr char grant_type[] = "urn%3Aietf%3Aparams%3Aoauth%3Agrant-type%3Ajwt-bearer";

struct token_request_params {
    json_ptr private_key;
    std::string scope;
    velm_google_auth_response_handler response_handler = nullptr;
};

struct token_request {
    token_request_params params;
    void *context = nullptr;
};

using token_request_ptr = std::unique_ptr<token_request>;

/// Every request ends here, exactly once.
void return_access_token(token_request_ptr d, json_ptr token)
{
    d->params.response_handler(std::move(token), d->context);
}

/// Seconds from now; an answer without the member, or with one that is no number, serves once.
/// At most an hour, whatever the answer claims: nobody gets a new token while one is held.
double lifetime_of(const cJSON *answer)
{
    const cJSON *expires_in = cJSON_GetObjectItemCaseSensitive(answer, "expires_in");
    const double seconds = cJSON_IsNumber(expires_in) ? expires_in->valuedouble : 0.0;
    constexpr double longest = 3600.0;
    return std::isnan(seconds) ? 0.0 : std::clamp(seconds, 0.0, longest);
}

/// Of an answer that may bring very much only what serves: it is held for up to an hour.
json_ptr token_make(const char *access_token, double valid_to)
{
    json_ptr token{cJSON_CreateObject()};
    REQUIRE_MEMORY(token, "token");
    REQUIRE_MEMORY(cJSON_AddStringToObject(token.get(), "access_token", access_token),
                   "access_token");
    REQUIRE_MEMORY(cJSON_AddNumberToObject(token.get(), "valid_to", valid_to), "valid_to");
    return token;
}

json_ptr token_from_answer(const void *d, int code, const char *body, std::size_t length)
{
    const json_ptr answer = velm_google_answer_parse(code, body, length, log_category, __func__, d);
    if (answer == nullptr) {
        return nullptr;
    }
    const char *access_token =
        cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(answer.get(), "access_token"));
    if (access_token == nullptr || *access_token == '\0') {
        LOG_ERROR("%s [%p] - no access_token", __func__, d);
        return nullptr;
    }
    return token_make(access_token, static_cast<double>(time(nullptr)) + lifetime_of(answer.get()));
}

void access_token_answered(int code, evkeyvalq *, const char *body, std::size_t length,
                           void *argument) noexcept
{
    token_request_ptr d = adopt<token_request>(argument);
    json_ptr token = token_from_answer(d.get(), code, body, length);
    if (token == nullptr) {
        story_reason_set(code > 0 ? "the access token was refused"
                                  : "no answer about an access token",
                         std::max(code, 0));
    }
    return_access_token(std::move(d), std::move(token));
}

http_client_request_data make_post(const std::string &jwt)
{
    http_client_request_data data;
    data.uri = cloud_token_endpoint;
    data.timeout_s = cloud_timeout_s;
    data.max_body_size = cloud_token_answer_max;
    data.post_data = std::string{"grant_type="} + grant_type + "&assertion=" + jwt;
    http_client_add_header(&data, "Content-Type", "application/x-www-form-urlencoded");
    return data;
}

void request_access_token(void *user_data, short, common_async_context *) noexcept
{
    token_request_ptr d = adopt<token_request>(user_data);
    const std::time_t now = time(nullptr);
    const std::optional<std::string> jwt = velm_google_auth_make_jwt(
        d->params.private_key.get(), d->params.scope.c_str(), cloud_token_endpoint, now);
    if (!jwt) {
        return_access_token(std::move(d), nullptr);
        return;
    }
    const http_client_request_data data = make_post(*jwt);
    LOG_TRACE("%s - payload: %.*s", __func__, static_cast<int>(data.post_data.size()),
              data.post_data.c_str());
    const int rc = http_request_internal(HTTP_CLIENT_POST, data, access_token_answered, d.get());
    if (rc < 0) {
        LOG_ERROR("%s - failed making http request: %d", __func__, rc);
        return_access_token(std::move(d), nullptr);
        return;
    }
    (void)d.release(); // the answer takes it back
}

} // namespace

void velm_google_auth_init(const velm_config *)
{
    // Requests under way belong to who asked: they end by their answer or its time-out.
    LOG_TRACE("%s", __func__);
}

int velm_google_auth_request_access_token(const cJSON *private_key, const char *scope,
                                          velm_google_auth_response_handler response_handler,
                                          void *context)
{
    REQUIRE_NOT_NULL(private_key, "params.private_key");
    REQUIRE_NOT_NULL(scope, "params.scope");
    REQUIRE_NOT_NULL(response_handler, "params.response_handler");
    auto d = std::make_unique<token_request>();
    {
        const allocation_name naming{__func__, "d->params.private_key"};
        d->params.private_key.reset(cJSON_Duplicate(private_key, true));
        REQUIRE_MEMORY(d->params.private_key, "d->params.private_key");
    }
    {
        const allocation_name naming{__func__, "d->params.scope"};
        d->params.scope = scope;
    }
    d->params.response_handler = response_handler;
    d->context = context;
    return common_async_action_call(request_access_token, d.release());
}
