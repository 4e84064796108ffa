#include <event2/bufferevent.h>
#include <event2/bufferevent_struct.h>

#include <cstring>
#include <string>

#include "handles/libevent.h"
#include "http_server/routes.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "velm_http_server";

/// Indexed by break code.
constexpr int statuses[] = {
    EVHTP_RES_OK,       EVHTP_RES_BADREQ,   424, EVHTP_RES_PRECONDFAIL, EVHTP_RES_UNAUTH,
    EVHTP_RES_NOTFOUND, EVHTP_RES_CONFLICT,
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

void send_reply(evhtp_request_t *request, int status)
{
    add_content_length(request);
    if (evhtp_request_get_method(request) == htp_method_HEAD) {
        // Answered like any other method; but what follows the head would be read as the next reply.
        evbuffer_drain(request->buffer_out, evbuffer_get_length(request->buffer_out));
    }
    evhtp_send_reply(request, static_cast<evhtp_res>(status));
    // The library leaves head and body in two pieces: in one they are one TLS record, one packet.
    bufferevent *const bev = request->conn->bev;
    evbuffer_pullup(bufferevent_get_output(bev), -1);
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

int http_server_status_from_break_code(int break_code)
{
    if (break_code < 0 || break_code >= static_cast<int>(std::size(statuses))) {
        return EVHTP_RES_SERVERR;
    }
    return statuses[break_code];
}

void http_server_reply_status(evhtp_request_t *request, int status)
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
    send_reply(req, EVHTP_RES_OK);
}
