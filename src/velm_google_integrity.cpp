#include "velm_google_integrity.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "async/common_async.h"
#include "cutils/moment.h"
#include "google/account.h"
#include "google/addresses.h"
#include "google/answer.h"
#include "google/junk.h"
#include "handles/argument.h"
#include "http/http_client.h"
#include "logger/fatal.h"
#include "request/status.h"
#include "story/reason.h"

namespace {

constexpr char log_category[] = "velm_google_integrity";

constexpr int http_too_many_requests = 429;

/// After a 429, the time from the last request in which none is sent.
constexpr std::chrono::hours silence{1};

constexpr char quota_is_used_up[] =
    "Google's daily limit is reached: Google is not asked for an hour";

struct module_state {
    const velm_config *config = nullptr;
    velm_google_account account{.scope = cloud_scope_play_integrity};
    bool limit_reached = false;
    velm_moment last_request;
};
module_state state;

/// A verdict that somebody waits for; gone when the completion has been called.
struct verdict_request {
    std::string token;
    velm_google_integrity_callback completion;
    void *context;
    std::uint32_t question = 0; // its number in the record of junk
    bool junk = false;
    unsigned access_token_number = 0; // of the access token that it was sent with
    const char *refusal = nullptr;    // a constant: why nobody is asked, for the story
};
using verdict_request_ptr = std::unique_ptr<verdict_request>;

/// Every request ends here, exactly once.
void return_verdict(verdict_request_ptr request, const cJSON *verdict)
{
    velm_google_junk_settle(request->question, request->junk);
    if (request->refusal != nullptr) {
        story_reason_set(request->refusal);
    }
    request->completion(verdict, request->context);
}

bool is_printable_text(const std::string &token)
{
    return !token.empty() &&
           std::all_of(token.begin(), token.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

void send_integrity_handler(int code, evkeyvalq *, const char *body, std::size_t length,
                            void *argument) noexcept
{
    auto request = adopt<verdict_request>(argument);
    request->junk = code == http_status_bad_request; // Google refuses to decode the token
    if (code == http_too_many_requests) {
        state.limit_reached = true;
        request->refusal = quota_is_used_up;
    }
    const json_ptr answer =
        velm_google_answer_parse(code, body, length, log_category, __func__, request.get());
    if (code == http_status_unauthorized) {
        velm_google_account_refuse_token(state.account, request->access_token_number, log_category,
                                         __func__);
    }
    const cJSON *verdict = cJSON_GetObjectItemCaseSensitive(answer.get(), "tokenPayloadExternal");
    if (answer != nullptr && !cJSON_IsObject(verdict)) {
        LOG_ERROR("%s [%p] - no tokenPayloadExternal", __func__,
                  static_cast<void *>(request.get()));
    }
    return_verdict(std::move(request), cJSON_IsObject(verdict) ? verdict : nullptr);
}

/// False, and a log line, while Google wants to be left alone; else the request counts as sent.
bool take_turn()
{
    if (state.limit_reached && velm_moment_is_within(state.last_request, silence)) {
        LOG_WARN("%s - daily limit reached", "send_integrity");
        return false;
    }
    state.limit_reached = false;
    state.last_request = velm_moment_now();
    return true;
}

http_client_request_data make_request(const std::string &token)
{
    const std::string uri = std::string{cloud_play_integrity_base} + "/v1/" +
                            state.config->app_android_package_name + ":decodeIntegrityToken";
    const json_ptr content{cJSON_CreateObject()};
    REQUIRE_MEMORY(content, "content");
    REQUIRE_MEMORY(cJSON_AddStringToObject(content.get(), "integrity_token", token.c_str()),
                   "integrity_token");
    const json_text body{cJSON_PrintUnformatted(content.get())};
    REQUIRE_MEMORY(body, "body");
    return velm_google_account_make_request(state.account, uri, body.get());
}

void send_integrity(verdict_request_ptr request)
{
    if (!velm_google_account_is_ready(state.account, log_category, __func__)) {
        return_verdict(std::move(request), nullptr);
        return;
    }
    if (!take_turn()) {
        request->refusal = quota_is_used_up;
        return_verdict(std::move(request), nullptr);
        return;
    }
    request->access_token_number = state.account.token_number;
    const int rc = http_request_internal(HTTP_CLIENT_POST, make_request(request->token),
                                         send_integrity_handler, request.get());
    if (rc < 0) {
        LOG_ERROR("%s - failed making http request: %d", __func__, rc);
        return_verdict(std::move(request), nullptr);
        return;
    }
    (void)request.release(); // the answer takes it back
}

void send_integrity_later(void *argument, short, common_async_context *) noexcept
{
    send_integrity(adopt<verdict_request>(argument));
}

void access_token_received(bool, void *argument)
{
    send_integrity(adopt<verdict_request>(argument)); // says itself what is missing
}

void refuse_later(void *argument, short, common_async_context *) noexcept
{
    return_verdict(adopt<verdict_request>(argument), nullptr);
}

/// Nothing, and a log line, when the address that it is asked for has sent too much junk.
std::optional<std::uint32_t> question_admit(const char *caller)
{
    const std::optional<in_addr> asker = velm_google_asker::current();
    const std::optional<std::uint32_t> question = velm_google_junk_admit(asker);
    if (asker.has_value() && !question.has_value()) {
        std::array<char, INET_ADDRSTRLEN> text{};
        inet_ntop(AF_INET, &*asker, text.data(), text.size());
        LOG_WARN("%s - too many junk tokens from %s", caller, text.data());
    }
    return question;
}

/// Only with a key that can be used at all.
bool needs_access_token()
{
    return *velm_google_account_project_id(state.account) != '\0' &&
           !velm_google_account_token_serves(state.account);
}

} // namespace

void velm_google_integrity_init(const velm_config *config)
{
    LOG_TRACE("%s", __func__);
    state.config = config;
    velm_google_account_load(state.account, config->app_android_integrity_privatekey_path,
                             log_category, __func__);
    velm_google_account_note(state.account, "app.android.integrity.privatekey.path",
                             config->app_android_integrity_privatekey_path);
}

void velm_google_integrity_get_verdict(std::span<const std::uint8_t> token,
                                       velm_google_integrity_callback completion, void *context)
{
    REQUIRE_NOT_NULL(completion, "completion");
    auto request = std::make_unique<verdict_request>(
        verdict_request{{token.begin(), token.end()}, completion, context});
    if (!is_printable_text(request->token)) {
        LOG_ERROR("%s - invalid token", __func__);
        request->refusal = "it is no integrity token";
        common_async_action_call(refuse_later, request.release());
        return;
    }
    const std::optional<std::uint32_t> question = question_admit(__func__);
    if (!question.has_value()) {
        request->refusal = "too many tokens that are none came from its address";
        common_async_action_call(refuse_later, request.release());
        return;
    }
    request->question = *question;
    if (needs_access_token()) {
        velm_google_account_request_token(state.account, access_token_received, request.release());
    } else {
        common_async_action_call(send_integrity_later, request.release());
    }
}
