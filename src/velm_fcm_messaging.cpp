#include "velm_fcm_messaging.h"

#include <event2/http.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "async/common_async.h"
#include "google/account.h"
#include "google/addresses.h"
#include "google/push_answer.h"
#include "google/push_content.h"
#include "handles/argument.h"
#include "handles/cjson.h"
#include "http/http_client.h"
#include "json/text.h"
#include "logger/fatal.h"
#include "metrics/metrics.h"
#include "request/status.h"
#include "story/reason.h"
#include "story/story.h"
#include "velm_nvram_pairings.h"

namespace {

constexpr char log_category[] = "velm_fcm_messaging";

struct module_state {
    const velm_config *config = nullptr;
    velm_google_account account{.scope = cloud_scope_firebase};
};
module_state state;

struct push_params {
    std::uint32_t timeout;
    std::uint32_t type;
    std::uint32_t run; // of the story
};

/// A push to one slot: waits for its turn, then for the answer.
struct send_context {
    int index;
    push_params cm_params_copy;
    json_ptr pairing = {};            // as the slot held it when its turn had come
    unsigned access_token_number = 0; // of the access token that it was sent with
    std::uint64_t told = 0;           // its number in the story
};
using send_context_ptr = std::unique_ptr<send_context>;

/// The token that FCM does not know may be an earlier one: a phone that has paired again meanwhile
/// stays paired.
bool has_paired_again(const cJSON *pairing)
{
    const std::string_view push_token = json_text_or_empty(pairing, "push_token");
    const json_ptr stored =
        velm_nvram_pairings_select_pairing(json_text_or_empty(pairing, "dev_id"));
    return stored != nullptr && push_token != json_text_or_empty(stored.get(), "push_token");
}

/// What a 404 means; one of the words for it.
const char *meaning_of_404(const cJSON *pairing, const char *body, std::size_t length,
                           const char *content_type)
{
    if (!velm_fcm_answer_is_about_the_token(body, length, content_type)) {
        return velm_fcm_words_stays;
    }
    return has_paired_again(pairing) ? velm_fcm_words_renewed : velm_fcm_words_unpaired;
}

void end_pairing(const cJSON *pairing, const char *meaning, int code)
{
    constexpr char function[] = "send_push_handler";
    const char *dev_id = json_text_or_empty(pairing, "dev_id");
    const char *dev_type = json_text_or_empty(pairing, "dev_type");
    const char *push_token = json_text_or_empty(pairing, "push_token");
    if (meaning == velm_fcm_words_stays) {
        LOG_WARN("%s - [%s,%s,%s,%d] - stays paired (the answer is not about its token)", function,
                 dev_id, dev_type, push_token, code);
        return;
    }
    if (meaning == velm_fcm_words_renewed) {
        LOG_INFO("%s - [%s,%s,%s,%d] - stays paired (by another token)", function, dev_id, dev_type,
                 push_token, code);
        return;
    }
    if (velm_nvram_pairings_select_pairing(dev_id) != nullptr) {
        velm_nvram_pairings_delete_pairing(dev_id);
        velm_nvram_pairings_save_pairings();
    }
    LOG_INFO("%s - [%s,%s,%s,%d] - unpaired (unregistered token)", function, dev_id, dev_type,
             push_token, code);
}

void push_refused(const send_context &context, int code)
{
    constexpr char function[] = "send_push_handler";
    const cJSON *pairing = context.pairing.get();
    LOG_ERROR("%s - [%s,%s,%s,%d]", function, json_text_or_empty(pairing, "dev_id"),
              json_text_or_empty(pairing, "dev_type"), json_text_or_empty(pairing, "push_token"),
              code);
    if (code == http_status_unauthorized) {
        velm_google_account_refuse_token(state.account, context.access_token_number, log_category,
                                         function);
    }
}

const char *content_type_of(const evkeyvalq *headers)
{
    return headers == nullptr ? nullptr : evhttp_find_header(headers, "Content-Type");
}

void send_push_handler(int code, evkeyvalq *headers, const char *body, std::size_t length,
                       void *argument) noexcept
{
    const auto context = adopt<send_context>(argument);
    LOG_DEBUG("%s [%p] - code: %d", __func__, static_cast<void *>(context.get()), code);
    metrics_count_push(std::max(code, 0));
    if (body != nullptr && length > 0) {
        LOG_TRACE("%s [%p] - body: %.*s", __func__, static_cast<void *>(context.get()),
                  static_cast<int>(length), body);
    }
    const cJSON *pairing = context->pairing.get();
    if (code == http_status_not_found) {
        const char *const meaning = meaning_of_404(pairing, body, length, content_type_of(headers));
        story_push_ends(context->told, code, meaning);
        end_pairing(pairing, meaning, code);
        return;
    }
    story_push_ends(context->told, std::max(code, 0),
                    code == http_status_ok
                        ? nullptr
                        : velm_fcm_answer_words(code, body, length, nullptr).c_str());
    if (code != http_status_ok) {
        push_refused(*context, code);
    }
}

/// False, and the reason logged, when the push cannot be addressed or authorised.
bool can_send(const cJSON *pairing)
{
    constexpr char function[] = "send_push";
    if (*json_text_or_empty(pairing, "push_token") == '\0') {
        LOG_ERROR("%s - empty push_token", function);
        return false;
    }
    return velm_google_account_is_ready(state.account, log_category, function);
}

http_client_request_data make_request(const send_context &context)
{
    const push_params &params = context.cm_params_copy;
    const json_ptr content =
        velm_push_content_make(*state.config, context.pairing.get(), params.timeout, params.type);
    const json_text body{cJSON_PrintUnformatted(content.get())};
    REQUIRE_MEMORY(body, "body");
    const std::string uri = std::string{cloud_fcm_base} + "/v1/projects/" +
                            velm_google_account_project_id(state.account) + "/messages:send";
    return velm_google_account_make_request(state.account, uri, body.get());
}

/// Null when no phone is paired there any more. A reload may have lowered the limit.
json_ptr read_slot_that_is_due(int index)
{
    json_ptr pairing = velm_nvram_pairings_select_live_pairing(index);
    if (pairing == nullptr) {
        LOG_DEBUG("%s - slot %d is not paired any more", "send_push", index);
    }
    return pairing;
}

void begin_to_tell(send_context &context)
{
    const cJSON *pairing = context.pairing.get();
    context.told = story_push_begins(
        {context.cm_params_copy.run, context.index, json_text_or_empty(pairing, "name"),
         json_text_or_empty(pairing, "dev_model"), json_text_or_empty(pairing, "dev_id")});
}

void tell_not_sent(const send_context &context, const char *why)
{
    story_push_ends(context.told, 0, why);
}

const char *why_not_sent(const cJSON *pairing)
{
    if (*json_text_or_empty(pairing, "push_token") == '\0') {
        return "the pairing has no push token";
    }
    return *velm_google_account_project_id(state.account) == '\0' ? "the key names no project"
                                                                  : "there is no access token";
}

void send_push_now(send_context_ptr context)
{
    constexpr char function[] = "send_push";
    context->pairing = read_slot_that_is_due(context->index);
    const cJSON *pairing = context->pairing.get();
    begin_to_tell(*context);
    if (pairing == nullptr) {
        tell_not_sent(*context, "the phone was unpaired before its turn");
        return;
    }
    LOG_TRACE("%s - [%s,%s,%s]", function, json_text_or_empty(pairing, "dev_id"),
              json_text_or_empty(pairing, "dev_type"), json_text_or_empty(pairing, "push_token"));
    if (!can_send(pairing)) {
        tell_not_sent(*context, why_not_sent(pairing));
        return;
    }
    context->access_token_number = state.account.token_number;
    const http_client_request_data request = make_request(*context);
    LOG_TRACE("%s - %s", function, request.post_data.c_str());
    const int rc =
        http_request_internal(HTTP_CLIENT_POST, request, send_push_handler, context.get());
    if (rc < 0) {
        LOG_ERROR("%s - failed making http request: %d", function, rc);
        tell_not_sent(*context, "the request could not be made");
        return;
    }
    (void)context.release(); // the response handler frees it
}

void access_token_renewed(bool, void *argument)
{
    (void)story_reason_take();
    send_push_now(adopt<send_context>(argument)); // says itself what is missing
}

/// When FCM has refused the access token to an earlier phone, this one need not go without a push.
void send_push(void *argument, short, common_async_context *) noexcept
{
    auto context = adopt<send_context>(argument);
    if (state.account.token_refused && state.account.private_key != nullptr) {
        velm_google_account_request_token(state.account, access_token_renewed, context.release());
    } else {
        send_push_now(std::move(context));
    }
}

void prepare_to_send_push(void *argument, short, common_async_context *) noexcept
{
    const auto params = adopt<push_params>(argument);
    LOG_TRACE("%s - %d", __func__, state.config->pairings_limit);
    long delay_s = 0;
    for (int index = 0; index < state.config->pairings_limit; ++index) {
        if (!velm_nvram_pairings_is_live(index)) {
            continue;
        }
        const allocation_name naming{__func__, "cm_params_copy"};
        auto context = std::make_unique<send_context>(send_context{index, *params});
        delay_s += velm_fcm_push_gap_s;
        common_async_action_schedule(send_push, context.release(), delay_s, 0);
    }
}

void queue_pushes(const push_params &params)
{
    common_async_action_call(prepare_to_send_push, release_new<push_params>(params));
}

void access_token_received(bool held, void *argument)
{
    const auto params = adopt<push_params>(argument);
    const story_reason reason = story_reason_take();
    if (!held) {
        LOG_ERROR("%s - missing access_token", __func__);
        story_run_failed(params->run, story_cause::no_access_token, reason.status);
        return;
    }
    queue_pushes(*params);
}

void request_access_token(const push_params &params)
{
    if (state.account.private_key == nullptr) {
        LOG_ERROR("%s - missing private key", __func__);
        story_run_failed(params.run, story_cause::no_key, 0);
        return;
    }
    velm_google_account_request_token(state.account, access_token_received,
                                      release_new<push_params>(params));
}

} // namespace

void velm_fcm_messaging_init(const velm_config *config)
{
    LOG_TRACE("%s", __func__);
    state.config = config;
    velm_google_account_load(state.account, config->cloudmessaging_firebase_privatekey_path,
                             log_category, __func__);
    velm_google_account_note(state.account, "cloudmessaging.firebase.privatekey.path",
                             config->cloudmessaging_firebase_privatekey_path);
}

void velm_fcm_messaging_push_to_all(std::uint32_t timeout, std::uint32_t type)
{
    const push_params params{timeout, type, story_run_number()};
    if (velm_google_account_token_serves(state.account)) {
        queue_pushes(params);
    } else {
        request_access_token(params);
    }
}
