#include "velm_request_preprocessor.h"

#include <cstddef>
#include <iterator>
#include <string>
#include <utility>

#include "handles/argument.h"
#include "handles/evhtp.h"
#include "logger/fatal.h"
#include "request/input.h"
#include "request/record.h"
#include "request/refusal.h"
#include "request/status.h"
#include "story/story.h"
#include "story/told.h"
#include "velm_request_assert_check.h"
#include "velm_request_device_check.h"
#include "velm_request_pairing_check.h"
#include "velm_request_user_pass_check.h"
#include "velm_utils.h"

namespace {

constexpr char log_category[] = "velm_request_preprocessor";

const void *address_of(const velm_request_preprocessor *p)
{
    return p;
}

const char *shown(const char *text)
{
    return text != nullptr ? text : "(null)";
}

/// The connection is being freed, and the paused request with it.
evhtp_res request_fini(evhtp_request_t * /*request*/, void *user_data) noexcept
{
    auto *const p = static_cast<velm_request_preprocessor *>(user_data);
    story_visit_came({.address = p->client_address.value_or(in_addr{}).s_addr,
                      .device_id = p->client_device_id,
                      .route = story_route_of(request_path(p->request)),
                      .check = story_gone,
                      .why = "its connection ended before it was answered"});
    p->request = nullptr;
    p->client_assertion = nullptr;
    p->request_gone = true;
    velm_request_keep_auth(&p->body); // no route comes, and nobody counts what it would read
    return EVHTP_RES_OK;
}

struct refusing_check {
    const char *name;
    const char *reason; // where the check gives no other
    const char *code;
};
// clang-format off
/// Indexed by break code.
constexpr refusing_check refusing_checks[] = {
    {"no check",             "unknown",                  story_endpoint},
    {"request check",        "bad request",              story_request_check},
    {"assertion check",      "challenge is not pending", story_assertion_check},
    {"assertion check",      "assertion is not valid",   story_assertion_check},
    {"user/password check",  "login refused",            story_user_pass_check},
    {"paired-app check",     "not paired",               story_paired_app_check},
    {"device check",         "bssid is not ours",        story_device_check},
};
// clang-format on

const refusing_check &check_of(const velm_request_preprocessor *p)
{
    const auto code = static_cast<std::size_t>(p->break_code);
    return refusing_checks[code < std::size(refusing_checks) ? code : 0];
}

story_told told_of(const velm_request_preprocessor *p)
{
    if (p->break_code == VELM_BREAK_NONE) {
        return {.device_id = p->client_device_id};
    }
    const refusing_check &check = check_of(p);
    const char *const reason = p->refusal != nullptr ? p->refusal : check.reason;
    return {.device_id = p->client_device_id,
            .check = check.code,
            .why = p->explained != nullptr ? p->explained : reason,
            .hint = p->hint.empty() ? nullptr : p->hint.c_str()};
}

void log_refusal(const velm_request_preprocessor *p)
{
    const refusing_check &check = check_of(p);
    velm_request_log_refusal(check.name, p->refusal != nullptr ? p->refusal : check.reason,
                             p->client_address, p->client_device_id);
}

/// Another request may have unpaired the phone, or given it another key, since it proved itself. From
/// here to what the route stores nothing comes between.
void check_that_proof_holds(velm_request_preprocessor *p)
{
    if (p->break_code == VELM_BREAK_NONE && p->proof.has_value() &&
        !velm_request_proof_holds(*p->proof, p->client_device_id)) {
        p->break_code = VELM_BREAK_ASSERTION;
        p->refusal = "the pairing has changed since the assertion was checked";
    }
}

void finish_async(void *user_data, short /*events*/, common_async_context * /*context*/) noexcept
{
    const auto p = adopt<velm_request_preprocessor>(user_data);
    LOG_TRACE("%s [%p]", __func__, address_of(p.get()));
    if (!p->request_gone) {
        // The answer may free the request: from here on the record must not be told.
        evhtp_request_unset_hook(p->request, evhtp_hook_on_request_fini);
        check_that_proof_holds(p.get());
        if (p->break_code != VELM_BREAK_NONE) {
            log_refusal(p.get());
        }
        const velm_request_body_offer offer{p->request, p->body};
        const story_told told = told_of(p.get());
        const story_telling telling{told};
        p->callback(p->request, p->break_code);
    }
}

int preproc_state_handler_init(velm_request_preprocessor *p)
{
    p->client_address = request_peer_address(p->request);
    if (common_logger_writes(log_category, LOG_LEVEL_TRACE)) {
        const std::string ip = request_address_text(p->client_address).value_or("");
        LOG_TRACE("%s [%p] - ip:   %s", __func__, address_of(p), ip.c_str());
        LOG_TRACE("%s [%p] - path: %s", __func__, address_of(p), shown(request_path(p->request)));
    }
    return 0;
}

struct auth_member {
    const char *name;
    const char *velm_request_preprocessor::*view;
    std::size_t limit;
    const char *refusal;
};
// clang-format off
constexpr auth_member auth_members[] = {
    {"deviceId",   &velm_request_preprocessor::client_device_id,   request_id_limit, "no valid deviceId"},
    {"deviceType", &velm_request_preprocessor::client_device_type, request_word_limit, "no valid deviceType"},
    {"bssid",      &velm_request_preprocessor::client_bssid,       request_word_limit, "no valid bssid"},
    {"username",   &velm_request_preprocessor::client_username,    request_id_limit, "no valid username"},
    {"password",   &velm_request_preprocessor::client_password,    request_id_limit, "no valid password"},
};
constexpr auth_member challenge_member =
    {"challenge",  &velm_request_preprocessor::client_challenge,   request_id_limit, "no valid challenge"};
// clang-format on

bool read_auth_member(velm_request_preprocessor *p, const cJSON *auth, const auth_member &member)
{
    const char *const text = velm_utils_get_field_value_from_json_object(auth, member.name);
    p->*member.view = text;
    const bool fits = request_text_fits(text, member.limit) &&
                      (member.view != &velm_request_preprocessor::client_device_type ||
                       velm_utils_device_type_from_string(text) != velm_device_type::unknown);
    if (!fits) {
        p->refusal = member.refusal;
    }
    return fits;
}

bool read_assertion(velm_request_preprocessor *p, const cJSON *auth)
{
    if (!read_auth_member(p, auth, challenge_member)) {
        return false;
    }
    const char *const assertion = request_header(p->request, "X-Assertion");
    if (!request_text_fits(assertion, request_header_limit)) {
        p->refusal = "no valid X-Assertion";
        return false;
    }
    p->client_assertion = assertion;
    return true;
}

/// For a caller that has not parsed it. What else it would read is not known, so it is not kept.
bool parse_body(velm_request_preprocessor *p)
{
    velm_request_body parsed = velm_request_parse_request_body(p->request);
    if (parsed.status == http_status_ok) {
        p->body = velm_request_keep(std::move(parsed.body), nullptr);
        p->body.is_whole = false;
    }
    return parsed.status == http_status_ok;
}

/// Reads the body and the headers into the record; false at the first one that will not do.
bool read_request(velm_request_preprocessor *p)
{
    if (p->body.tree == nullptr && !parse_body(p)) {
        p->refusal = "no valid body";
        return false;
    }
    const cJSON *const auth = request_auth(p->body.tree.get());
    for (const auth_member &member : auth_members) {
        if (!read_auth_member(p, auth, member)) {
            return false;
        }
    }
    return !p->checks.assertion || read_assertion(p, auth);
}

void trace_request(const velm_request_preprocessor *p)
{
    constexpr char name[] = "preproc_state_handler_request_check";
    const void *const id = address_of(p);
    LOG_TRACE("%s [%p] - device id:   %s", name, id, shown(p->client_device_id));
    LOG_TRACE("%s [%p] - device type: %s", name, id, shown(p->client_device_type));
    LOG_TRACE("%s [%p] - bssid:       %s", name, id, shown(p->client_bssid));
    LOG_TRACE("%s [%p] - username:    %s", name, id, shown(p->client_username));
    // In clear, and only at this level: how a login is debugged in the field.
    LOG_TRACE("%s [%p] - password:    %s", name, id, shown(p->client_password));
    LOG_TRACE("%s [%p] - challenge:   %s", name, id, shown(p->client_challenge));
    LOG_TRACE("%s [%p] - assertion:   %s", name, id, shown(p->client_assertion));
    LOG_TRACE("%s [%p] - user_agent:  %s", name, id,
              shown(request_header(p->request, "User-Agent")));
}

int preproc_state_handler_request_check(velm_request_preprocessor *p)
{
    p->break_code = VELM_BREAK_NONE;
    if (p->checks.request && !read_request(p)) {
        p->break_code = VELM_BREAK_BAD_REQUEST;
    }
    if (common_logger_writes(log_category, LOG_LEVEL_TRACE)) {
        trace_request(p);
    }
    return 0;
}

int preproc_state_handler_assertion_check(velm_request_preprocessor *p)
{
    LOG_TRACE("%s [%p]", __func__, address_of(p));
    make_assert_check(p);
    return 1;
}

int preproc_state_handler_user_pass_check(velm_request_preprocessor *p)
{
    LOG_TRACE("%s [%p]", __func__, address_of(p));
    make_user_pass_check(p);
    return 1;
}

int preproc_state_handler_paired_app_check(velm_request_preprocessor *p)
{
    LOG_TRACE("%s [%p]", __func__, address_of(p));
    make_pairing_check(p);
    return 1;
}

int preproc_state_handler_device_check(velm_request_preprocessor *p)
{
    LOG_TRACE("%s [%p]", __func__, address_of(p));
    make_device_check(p);
    return 1;
}

int preproc_state_handler_finished(velm_request_preprocessor *p)
{
    LOG_TRACE("%s [%p]", __func__, address_of(p));
    common_async_action_call(finish_async, p);
    return 0;
}

/// `handler` gives 1 when a check it started will continue the machine, else 0; `flag` is the check
/// that a route may leave out.
struct preproc_state_row {
    preproc_state state;
    const char *name;
    int (*handler)(velm_request_preprocessor *);
    bool velm_request_checks::*flag;
};
// clang-format off
constexpr preproc_state_row preproc_states[] = {
    {preproc_state::init,             "init",             preproc_state_handler_init,             nullptr},
    {preproc_state::request_check,    "request_check",    preproc_state_handler_request_check,    &velm_request_checks::request},
    {preproc_state::assertion_check,  "assertion_check",  preproc_state_handler_assertion_check,  &velm_request_checks::assertion},
    {preproc_state::user_pass_check,  "user_pass_check",  preproc_state_handler_user_pass_check,  &velm_request_checks::user_pass},
    {preproc_state::paired_app_check, "paired_app_check", preproc_state_handler_paired_app_check, &velm_request_checks::paired_app},
    {preproc_state::device_check,     "device_check",     preproc_state_handler_device_check,     &velm_request_checks::device},
    {preproc_state::finished,         "finished",         preproc_state_handler_finished,         nullptr},
};
// clang-format on

constexpr bool rows_in_state_order()
{
    for (std::size_t i = 0; i < std::size(preproc_states); ++i) {
        if (static_cast<std::size_t>(preproc_states[i].state) != i) {
            return false;
        }
    }
    return std::size(preproc_states) == static_cast<std::size_t>(preproc_state::finished) + 1;
}
static_assert(rows_in_state_order());

preproc_state next_state(const velm_request_preprocessor *p)
{
    for (const preproc_state_row &row : preproc_states) {
        if (row.state > p->state && row.flag != nullptr && p->checks.*row.flag) {
            return row.state;
        }
    }
    return preproc_state::finished;
}

void velm_request_preprocessor_loop(void *user_data, short /*events*/,
                                    common_async_context * /*context*/) noexcept
{
    auto *const p = static_cast<velm_request_preprocessor *>(user_data);
    if (p->break_code != VELM_BREAK_NONE) {
        p->state = preproc_state::finished;
        LOG_TRACE("%s [%p] - break: %d", __func__, address_of(p), p->break_code);
    } else if (p->request_gone) {
        p->state = preproc_state::finished;
        LOG_TRACE("%s [%p] - request gone", __func__, address_of(p));
    }
    const auto index = static_cast<std::size_t>(p->state);
    if (index >= std::size(preproc_states)) {
        FATAL("%s: invalid state: %d", __func__, static_cast<int>(p->state));
    }
    const preproc_state_row &row = preproc_states[index];
    LOG_TRACE("%s [%p] - current state: %s", __func__, address_of(p), row.name);
    const int waits = row.handler(p);
    if (p->state == preproc_state::finished) {
        return;
    }
    p->state = next_state(p);
    if (waits == 0) {
        common_async_action_call(velm_request_preprocessor_loop, p);
    }
}

} // namespace

void velm_request_preprocessor_init(const velm_config * /*config*/)
{
    LOG_TRACE("%s", __func__);
}

velm_request_preprocessor *velm_request_preprocessor_create(const velm_request_checks &checks)
{
    const allocation_name naming{__func__, "preprocessor"};
    auto *const p = release_new<velm_request_preprocessor>();
    p->checks = checks;
    return p;
}

void velm_request_preprocessor_attach_request(velm_request_preprocessor *preprocessor,
                                              evhtp_request_t *request)
{
    REQUIRE_NOT_NULL(preprocessor, "preprocessor");
    REQUIRE_NOT_NULL(request, "request");
    preprocessor->request = request;
    const int rc =
        evhtp_request_hook(request, evhtp_hook_on_request_fini, request_fini, preprocessor);
    REQUIRE_CALL(rc == 0, "evhtp_request_set_hook(request, evhtp_hook_on_request_fini)", rc);
}

void velm_request_preprocessor_set_callback(velm_request_preprocessor *preprocessor,
                                            velm_request_callback callback)
{
    REQUIRE_NOT_NULL(preprocessor, "preprocessor");
    REQUIRE_NOT_NULL(callback, "callback");
    preprocessor->callback = callback;
}

void velm_request_preprocessor_attach_body(velm_request_preprocessor *preprocessor,
                                           velm_request_kept_body body)
{
    REQUIRE_NOT_NULL(preprocessor, "preprocessor");
    preprocessor->body = std::move(body);
}

void velm_request_preprocessor_start(velm_request_preprocessor *preprocessor)
{
    const velm_request_preprocessor *const p = preprocessor;
    REQUIRE_NOT_NULL(p, "preprocessor");
    REQUIRE_NOT_NULL(p->request, "p->request");
    if (p->state != preproc_state::init) {
        FATAL("%s: %s != %s", __func__, "p->state", "preproc_state_init");
    }
    common_async_action_call(velm_request_preprocessor_loop, preprocessor);
}

void velm_request_preprocessor_continue(velm_request_preprocessor *preprocessor, int break_code)
{
    REQUIRE_NOT_NULL(preprocessor, "preprocessor");
    preprocessor->break_code = break_code;
    common_async_action_call(velm_request_preprocessor_loop, preprocessor);
}
