#include "http_server/answer.h"

#include "http_server/log.h"
#include "http_server/routes.h"
#include "logger/fatal.h"
#include "metrics/metrics.h"
#include "request/body.h"
#include "request/checks.h"
#include "request/input.h"
#include "request/kept.h"
#include "request/refusal.h"

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

http_outcome work_done(evhtp_request_t *request, const http_work &work)
{
    velm_request_body parsed{nullptr, http_status_ok};
    const cJSON *const body = find_body(request, work, &parsed);
    const cJSON *const auth = request_auth(body);
    http_outcome end = parsed.status == http_status_ok
                           ? work.run({request, body, auth})
                           : http_outcome{static_cast<http_status>(parsed.status), "no valid body"};
    if (end.refusal != nullptr) {
        metrics_count(metric::refused_by_endpoint);
        velm_request_log_refusal_of(request, work.path, end.refusal, auth);
    }
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
        FATAL("%s: %s is null: %s", work.handler, "req", "null reference");
    }
    if (break_code == VELM_BREAK_NONE) {
        reply(request, work_done(request, work));
    } else {
        http_server_reply_status(request, http_server_status_from_break_code(break_code));
    }
    LOG_TRACE("%s - done", work.handler);
}
