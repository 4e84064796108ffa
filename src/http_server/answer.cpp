#include "http_server/answer.h"

#include "http_server/log.h"
#include "http_server/routes.h"
#include "http_server/visits.h"
#include "logger/fatal.h"
#include "request/body.h"
#include "request/checks.h"
#include "request/input.h"
#include "request/kept.h"
#include "request/refusal.h"
#include "story/told.h"

namespace {

/// What the checks have kept. When they have kept nothing, or a body was too long for that, a work that
/// reads it has it parsed into `parsed`.
const cJSON *find_body(evhtp_request_t *request, const http_work &work, velm_request_body *parsed)
{
    const cJSON *const kept = velm_request_offered_body(request);
    if (kept != nullptr || !work.reads_body) {
        return kept;
    }
    *parsed = velm_request_parse_request_body(request);
    return parsed->body.get();
}

/// The check that a story names when the work of a route refuses by itself. A 412 or 424 is the proof.
const char *check_of(http_status status)
{
    switch (status) {
    case http_status_bad_request:
        return story_request_check;
    case http_status_precondition_failed:
    case http_status_failed_dependency:
        return story_assertion_check;
    default:
        return story_endpoint;
    }
}

void tell_outcome(const evhtp_request_t *request, const http_work &work, const cJSON *auth,
                  const http_outcome &end)
{
    const story_told &told = story_told_now();
    story_visit_note visit{.device_id = told.device_id, .route = work.path, .status = end.status};
    if (visit.device_id == nullptr) {
        visit.device_id = http_visit_device_id(auth);
    }
    if (end.status != http_status_ok) {
        visit.check = check_of(end.status);
        visit.why =
            end.refusal != nullptr ? end.refusal : "no room while a local client does not read";
        visit.hint = end.hint;
    }
    http_visit_tell(request, visit);
}

void tell_refusal(const evhtp_request_t *request, const http_work &work, http_status status)
{
    const story_told &told = story_told_now();
    http_visit_tell(request, {.device_id = told.device_id,
                              .route = work.path,
                              .status = status,
                              .check = told.check != nullptr ? told.check : check_of(status),
                              .why = told.why,
                              .hint = told.hint});
}

http_outcome work_done(evhtp_request_t *request, const http_work &work)
{
    velm_request_body parsed{nullptr, http_status_ok};
    const cJSON *const body = find_body(request, work, &parsed);
    const cJSON *const auth = request_auth(body);
    http_outcome end = parsed.status == http_status_ok
                           ? work.run({request, body, auth})
                           : http_outcome{static_cast<http_status>(parsed.status), "no valid body"};
    if (end.refusal != nullptr) {
        velm_request_log_refusal_of(request, work.path, end.refusal, auth);
    }
    tell_outcome(request, work, auth, end);
    return end;
}

void reply(evhtp_request_t *request, const http_outcome &end)
{
    if (end.text != nullptr) {
        http_server_reply_text(request, end.text);
    } else if (end.json != nullptr) {
        http_server_reply_json(request, end.json.get());
    } else {
        http_server_reply_status(request, end.status);
    }
}

} // namespace

void http_server_answer(evhtp_request_t *request, int break_code, const http_work &work)
{
    LOG_TRACE("%s - start", work.handler);
    if (request == nullptr) {
        fatal_null_reference(log_category, __FILE__, __LINE__, work.handler, "req");
    }
    if (break_code == VELM_BREAK_NONE) {
        reply(request, work_done(request, work));
    } else {
        const http_status status = http_server_status_from_break_code(break_code);
        tell_refusal(request, work, status);
        http_server_reply_status(request, status);
    }
    LOG_TRACE("%s - done", work.handler);
}
