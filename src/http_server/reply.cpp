#include <event2/bufferevent.h>
#include <event2/bufferevent_struct.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "handles/libevent.h"
#include "http_server/log.h"
#include "http_server/parser.h"
#include "http_server/routes.h"
#include "logger/fatal.h"
#include "metrics/metrics.h"
#include "request/input.h"
#include "text/or_empty.h"

namespace {

/// Indexed by break code.
constexpr http_status statuses[] = {
    http_status_ok,
    http_status_bad_request,
    http_status_failed_dependency,
    http_status_precondition_failed,
    http_status_unauthorized,
    http_status_not_found,
    http_status_conflict,
};
static_assert(std::size(statuses) == 7);

/// The library leaves the length out for HTTP/1.0, and says 0 to a client that sent "multipart".
void add_content_length(evhtp_request_t *request)
{
    const std::string length = std::to_string(evbuffer_get_length(request->buffer_out));
    evhtp_header_t *const header = evhtp_header_new("Content-Length", length.c_str(), 0, 1);
    REQUIRE_MEMORY(header, "header");
    evhtp_headers_add_header(request->headers_out, header);
}

/// Later in this turn, without asking the kernel first whether the socket takes it: it nearly always
/// does, and when not, what is left waits as ever.
void write_in_this_turn(bufferevent *bev)
{
    event_active(&bev->ev_write, EV_WRITE, 1);
}

std::string_view text_of(evbuffer *output)
{
    const unsigned char *const text = evbuffer_pullup(output, -1);
    return {reinterpret_cast<const char *>(text), evbuffer_get_length(output)};
}

/// The library calls a status that it does not know "UNKNOWN". The reply is behind the first `before`
/// bytes: leave to send the body may wait in front of it.
void put_registered_phrase(evbuffer *output, std::size_t before, http_status status)
{
    const std::string_view text = text_of(output);
    const std::size_t begin = before + std::string_view{"HTTP/1.1 424 "}.size();
    const std::size_t end = text.find("\r\n", begin);
    const std::string_view phrase = http_status_phrase(status);
    if (end == std::string_view::npos || text.substr(begin, end - begin) == phrase) {
        return;
    }
    const std::string front = std::string{text.substr(0, begin)}.append(phrase);
    if (evbuffer_drain(output, end) == 0) {
        const int rc = evbuffer_prepend(output, front.data(), front.size());
        REQUIRE_CALL(rc == 0, "evbuffer_prepend(output, front, size)", rc);
    }
}

void send_reply(evhtp_request_t *request, http_status status)
{
    metrics_count_reply(text_or_empty(request_path(request)), status);
    add_content_length(request);
    if (request->method == htp_method_HEAD) {
        // Answered like any other method; but what follows the head would be read as the next reply.
        evbuffer_drain(request->buffer_out, evbuffer_get_length(request->buffer_out));
    }
    bufferevent *const bev = request->conn->bev;
    evbuffer *const output = bufferevent_get_output(bev);
    const std::size_t before = evbuffer_get_length(output);
    http_parser_tell_version(request);
    evhtp_send_reply(request, static_cast<evhtp_res>(status));
    put_registered_phrase(output, before, status);
    // The library leaves head and body in two pieces: in one they are one TLS record, one packet.
    evbuffer_pullup(output, -1);
    // In this order: resuming relies on the reply that has not been sent yet, and frees a connection
    // whose peer has gone.
    const auto flags = request->conn->flags;
    if ((flags & EVHTP_CONN_FLAG_PAUSED) != 0) {
        evhtp_request_resume(request);
    }
    if ((flags & EVHTP_CONN_FLAG_FREE_CONN) == 0) {
        write_in_this_turn(bev);
    }
}

} // namespace

http_status http_server_status_from_break_code(int break_code)
{
    if (break_code < 0 || break_code >= static_cast<int>(std::size(statuses))) {
        return http_status_internal_error;
    }
    return statuses[break_code];
}

void http_server_reply_status(evhtp_request_t *request, http_status status)
{
    REQUIRE_NOT_NULL(request, "req");
    send_reply(request, status);
}

void http_server_reply_json(evhtp_request_t *request, const cJSON *object)
{
    const json_text response_buf{cJSON_PrintUnformatted(object)};
    REQUIRE_MEMORY(response_buf, "response_buf");
    http_server_reply_text(request, response_buf.get());
}

void http_server_reply_text(evhtp_request_t *req, const char *response_buf)
{
    REQUIRE_NOT_NULL(req, "req");
    evhtp_header_t *const response_header_content_type =
        evhtp_header_new("Content-Type", "application/json", 0, 0);
    REQUIRE_MEMORY(response_header_content_type, "response_header_content_type");
    evhtp_headers_add_header(req->headers_out, response_header_content_type);
    const int rc = evbuffer_add(req->buffer_out, response_buf, std::strlen(response_buf));
    REQUIRE_CALL(rc == 0, "evbuffer_add(req->buffer_out, response_buf, strlen(response_buf))", rc);
    send_reply(req, http_status_ok);
}
