#include "velm_http_server_intake.h"

#include <event2/buffer.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "handles/evhtp.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "velm_http_server";

/// What may wait behind a request that is being answered, or as an unfinished head.
constexpr std::size_t max_held = http_head_max_size + http_server_max_body_size;

void log_refusal(const char *reason)
{
    LOG_WARN("%s - %s", "refuse", reason);
}

intake_result refuse(http_intake *intake, const char *reason)
{
    log_refusal(reason);
    evhtp_close(intake->connection);
    return intake_result::ended;
}

/// Every route either pauses the request or answers it before it returns.
bool has_reached_its_route(const http_intake *intake)
{
    const evhtp_request_t *const request = intake->connection->request;
    return http_intake_is_paused(intake) ||
           (request != nullptr && (request->flags & EVHTP_REQ_FLAG_FINISHED) != 0);
}

/// The parser tells no path of an HTTP/0.9 request, and so nobody would ever answer it.
bool has_route(const http_intake *intake)
{
    const evhtp_request_t *const request = intake->connection->request;
    return request != nullptr && request->cb != nullptr;
}

/// Runs one of the library's callbacks; false when the connection has ended in it.
template <typename Call>
bool survives(http_intake *intake, Call call)
{
    bool gone = false;
    intake->gone = &gone;
    call();
    if (!gone) {
        intake->gone = nullptr;
    }
    return !gone;
}

/// Gives the parser these bytes, which end no later than the message; it takes them all. False when
/// the connection has ended.
bool feed(http_intake *intake, std::string_view bytes)
{
    bufferevent *const bev = intake->connection->bev;
    const int rc = evbuffer_add(bufferevent_get_input(bev), bytes.data(), bytes.size());
    REQUIRE_CALL(rc == 0, "evbuffer_add(input, bytes, size)", rc);
    if (!survives(intake, [intake, bev] { intake->library.read(bev, intake->library.argument); })) {
        log_refusal("the parser takes it for no request, or its body for too long");
        return false;
    }
    return true;
}

/// The parser has taken the head and has not called a route: so a body follows.
intake_result begin_body(http_intake *intake, bool chunked)
{
    if (!has_route(intake)) {
        return refuse(intake, "no http request");
    }
    intake->body_left = htparser_get_content_length(intake->connection->parser);
    if (!chunked && intake->body_left > http_server_max_body_size) {
        return refuse(intake, "body too long");
    }
    intake->chunked = chunked;
    intake->phase = message_phase::body;
    return intake_result::moved_on;
}

/// A step has moved on when there may be more to do with what is held.
intake_result take_head(http_intake *intake)
{
    if (intake->scanned == 0) {
        intake->held.erase(0,
                           std::min(intake->held.find_first_not_of("\r\n"), intake->held.size()));
    }
    const std::size_t length = http_head_length(intake->held, &intake->scanned);
    if (length == 0) {
        return intake->held.size() < http_head_max_size ? intake_result::waits
                                                        : refuse(intake, "head too long");
    }
    http_head head = http_head_filter(std::string_view{intake->held}.substr(0, length));
    if (head.refusal != nullptr) {
        return refuse(intake, head.refusal);
    }
    intake->held.erase(0, length);
    intake->scanned = 0;
    intake->lifted = std::move(head.lifted);
    REQUIRE_MEMORY(evhtp_connection_make_parser(intake->connection), "parser");
    if (!feed(intake, head.text)) {
        return intake_result::ended;
    }
    if (!has_reached_its_route(intake)) {
        return begin_body(intake, head.chunked);
    }
    intake->phase = message_phase::answering;
    return intake_result::moved_on;
}

/// How much of what is held the parser may have without seeing anything of the next request. A
/// chunked body ends at a line's end, and only the parser knows at which: so line by line.
std::size_t body_piece(const http_intake *intake)
{
    if (intake->chunked) {
        return std::min(intake->held.find('\n'), intake->held.size() - 1) + 1;
    }
    return static_cast<std::size_t>(
        std::min<std::uint64_t>(intake->held.size(), intake->body_left));
}

intake_result take_body(http_intake *intake)
{
    const std::size_t size = intake->held.empty() ? 0 : body_piece(intake);
    if (size == 0) {
        return intake_result::waits;
    }
    const std::string bytes = intake->held.substr(0, size);
    intake->held.erase(0, size);
    intake->body_left -= std::min<std::uint64_t>(size, intake->body_left);
    if (!feed(intake, bytes)) {
        return intake_result::ended;
    }
    if (has_reached_its_route(intake)) {
        intake->phase = message_phase::answering;
    }
    return intake_result::moved_on;
}

intake_result take_nothing(http_intake *intake)
{
    return intake->held.size() <= max_held ? intake_result::waits
                                           : refuse(intake, "too much behind a request");
}

intake_result take_held(http_intake *intake)
{
    switch (intake->phase) {
    case message_phase::head:
        return take_head(intake);
    case message_phase::body:
        return take_body(intake);
    case message_phase::answering:
        break;
    }
    return take_nothing(intake);
}

/// Goes as far as what is held allows.
intake_result take_all_held(http_intake *intake)
{
    const bool was_answering = intake->phase == message_phase::answering;
    intake_result result = take_held(intake);
    while (result == intake_result::moved_on) {
        result = take_held(intake);
    }
    if (result == intake_result::waits && !was_answering &&
        intake->phase == message_phase::answering) {
        return intake_result::moved_on;
    }
    return result;
}

/// The parser has all headers: the lifted ones join them before any route looks.
evhtp_res on_headers(evhtp_request_t *, evhtp_headers_t *headers, void *argument) noexcept
{
    auto *const intake = static_cast<http_intake *>(argument);
    for (const http_head_lifted &lifted : std::exchange(intake->lifted, {})) {
        evhtp_header_t *const header = evhtp_header_new(lifted.name, lifted.value.c_str(), 0, 1);
        REQUIRE_MEMORY(header, "header");
        evhtp_headers_add_header(headers, header);
    }
    return EVHTP_RES_OK;
}

} // namespace

void http_intake_start(http_intake *intake, evhtp_connection_t *connection,
                       const library_callbacks &callbacks)
{
    intake->connection = connection;
    library_callbacks &library = intake->library;
    bufferevent_getcb(connection->bev, &library.read, &library.write, &library.event,
                      &library.argument);
    bufferevent_setcb(connection->bev, callbacks.read, callbacks.write, callbacks.event,
                      callbacks.argument);
    const int rc = evhtp_connection_hook(connection, evhtp_hook_on_headers, on_headers, intake);
    REQUIRE_CALL(rc == 0, "evhtp_connection_set_hook(on_headers)", rc);
    evhtp_connection_drop_parser(connection); // until there is a head for it
}

intake_result http_intake_read(http_intake *intake)
{
    evbuffer *const input = bufferevent_get_input(intake->connection->bev);
    const std::size_t before = intake->held.size();
    intake->held.resize(before + evbuffer_get_length(input));
    evbuffer_remove(input, intake->held.data() + before, intake->held.size() - before);
    return take_all_held(intake);
}

intake_result http_intake_written(http_intake *intake)
{
    bufferevent *const bev = intake->connection->bev;
    if (!survives(intake,
                  [intake, bev] { intake->library.write(bev, intake->library.argument); })) {
        return intake_result::ended;
    }
    if (intake->phase != message_phase::answering || intake->connection->request != nullptr) {
        return intake_result::waits;
    }
    // The library has freed the answered request: the next one may come.
    intake->phase = message_phase::head;
    intake->lifted = {};
    evhtp_connection_drop_parser(intake->connection);
    intake->held.shrink_to_fit();
    return take_all_held(intake) == intake_result::ended ? intake_result::ended
                                                         : intake_result::moved_on;
}

void http_intake_end(const http_intake *intake)
{
    if (intake->gone != nullptr) {
        *intake->gone = true;
    }
}

bool http_intake_is_paused(const http_intake *intake)
{
    return (intake->connection->flags & EVHTP_CONN_FLAG_PAUSED) != 0;
}
