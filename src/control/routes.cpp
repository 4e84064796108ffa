#include "control/routes.h"

#include <cstdio>

#include "control/members.h"
#include "control/metrics.h"
#include "control/rounds.h"
#include "control/status.h"
#include "handles/cjson.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "control";
constexpr char json_type[] = "application/json";
constexpr char metrics_type[] = "text/plain; version=0.0.4";

const char *phrase_of(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 431:
        return "Request Header Fields Too Large";
    case 503:
        return "Service Unavailable";
    }
    return "Unknown";
}

control_answer document(const json_ptr &document)
{
    REQUIRE_MEMORY(document, "document");
    return {200, control_print(document.get()), json_type};
}

control_answer status()
{
    return document(control_status_document());
}

control_answer rounds()
{
    return document(control_rounds_document());
}

control_answer metrics()
{
    return {200, control_metrics_text(), metrics_type};
}

struct route {
    std::string_view path;
    bool takes_query;
    control_answer (*answer)();
};

constexpr route routes[] = {
    {"/v1/status", false, status},
    {"/v1/rounds", true, rounds},
    {"/v1/metrics", false, metrics},
};

const route *route_of(std::string_view path)
{
    for (const route &one : routes) {
        if (one.path == path) {
            return &one;
        }
    }
    return nullptr;
}

} // namespace

std::string control_answer_text(const control_answer &answer)
{
    char head[256];
    const int length =
        std::snprintf(head, sizeof head,
                      "HTTP/1.1 %d %s\r\nContent-Type: %s\r\nContent-Length: %zu\r\n"
                      "Cache-Control: no-store\r\nConnection: close\r\n%s\r\n",
                      answer.status, phrase_of(answer.status), answer.type, answer.body.size(),
                      answer.status == 405 ? "Allow: GET\r\n" : "");
    return std::string{head, static_cast<std::size_t>(length)}.append(answer.body);
}

control_answer control_refusal(int status, const char *why)
{
    return {status, std::string{why} + '\n'};
}

std::optional<control_wait> control_wait_of(const control_request &request)
{
    const route *const asked = route_of(request.path);
    return request.is_get && asked != nullptr && asked->takes_query
               ? control_wait_read(request.query)
               : std::nullopt;
}

control_answer control_route(const control_request &request)
{
    const route *const asked = route_of(request.path);
    if (asked == nullptr) {
        return control_refusal(404, "there is /v1/status, /v1/rounds and /v1/metrics");
    }
    if (!request.is_get) {
        return control_refusal(405, "GET alone is served");
    }
    if (asked->takes_query ? !control_wait_read(request.query) : !request.query.empty()) {
        return control_refusal(400, "the query is none of this document");
    }
    return asked->answer();
}
