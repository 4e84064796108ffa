#include "http_server/intake.h"

#include <event2/buffer.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "handles/evhtp.h"
#include "handles/secret.h"
#include "http_server/held.h"
#include "http_server/log.h"
#include "http_server/parser.h"
#include "http_server/refusals.h"
#include "http_server/tls.h"
#include "logger/fatal.h"
#include "metrics/metrics.h"
#include "request/status.h"
#include "story/story.h"

namespace {

/// What may wait behind a request that is being answered, or as an unfinished head.
constexpr std::size_t max_held = http_head_max_size + http_server_max_body_size;

/// What is read of a client that was refused, so that the answer is not lost: closing with bytes
/// unread would reset the connection, and take from the client what it has not read yet.
constexpr std::size_t max_thrown_away = 1024 * 1024;

/// What the head of a refused request counts at most from then on.
constexpr std::size_t refused_room_max = 32 * 1024;

/// `status` is 0 for a client that gets no answer.
void log_refusal(in_addr_t address, const char *reason, int status)
{
    story_visit_came({.address = address, .status = status, .check = story_http, .why = reason});
    if (http_refusals_tell(address)) {
        LOG_WARN("%s - %s: %s", "refuse", reason, http_refusals_text(address));
    }
}

intake_result end(http_intake *intake, const char *reason)
{
    log_refusal(intake->address, reason, 0);
    evhtp_close(intake->connection);
    return intake_result::ended;
}

/// Answers without the library, which has not seen the whole request and will not. At once, since an
/// end that the client has sent already would take what waits to be written with it. No more will
/// come from us, but the client is still heard until it ends too.
intake_result refuse(http_intake *intake, const char *reason, int status)
{
    log_refusal(intake->address, reason, status);
    metrics_count_reply({}, status);
    const std::string answer = "HTTP/1.1 " + std::to_string(status) + ' ' +
                               http_status_phrase(status) +
                               "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    bufferevent_disable(intake->connection->bev, EV_WRITE);
    http_tls_say_last(intake->connection->ssl, intake->connection->sock, answer);
    intake->phase = message_phase::refused;
    // It goes on counting: of many that are refused some are closed at once. Not in full, else one that
    // is alone could lose its answer to the room of the TLS record that it is about to send.
    intake->refused_room = std::min(intake->held.capacity(), refused_room_max);
    http_held_wipe(&intake->held);
    std::string{}.swap(intake->held);
    http_held_wipe(&intake->body.text);
    intake->body.text.clear();
    intake->lifted = {};
    return intake_result::refused;
}

intake_result throw_away(http_intake *intake)
{
    evbuffer *const input = bufferevent_get_input(intake->connection->bev);
    intake->thrown_away += evbuffer_get_length(input);
    evbuffer_drain(input, evbuffer_get_length(input));
    return intake->thrown_away <= max_thrown_away ? intake_result::waits
                                                  : end(intake, "more behind a refused request");
}

/// The library has the whole reply.
bool is_answered(const http_intake *intake)
{
    const evhtp_request_t *const request = intake->connection->request;
    return !http_intake_is_paused(intake) && request != nullptr &&
           (request->flags & EVHTP_REQ_FLAG_FINISHED) != 0;
}

/// Every route either pauses the request or answers it before it returns.
bool has_reached_its_route(const http_intake *intake)
{
    return http_intake_is_paused(intake) || is_answered(intake);
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

/// Gives the parser these bytes, which end no later than the message; it takes them all. They are lent
/// to it, not copied. False when the connection has ended.
bool feed(http_intake *intake, std::string_view bytes)
{
    const in_addr_t address = intake->address; // the intake goes with its connection
    bufferevent *const bev = intake->connection->bev;
    evbuffer *const input = bufferevent_get_input(bev);
    const int rc = evbuffer_add_reference(input, bytes.data(), bytes.size(), nullptr, nullptr);
    REQUIRE_CALL(rc == 0, "evbuffer_add_reference(input, bytes, size)", rc);
    if (!survives(intake, [intake, bev] { intake->library.read(bev, intake->library.argument); })) {
        log_refusal(address, "the parser takes it for no request", 0);
        return false;
    }
    evbuffer_drain(input, evbuffer_get_length(input));
    return true;
}

/// A request is on its way to its route. False when there was no room for it.
bool is_admitted(http_intake *intake)
{
    return intake->make_room == nullptr ||
           survives(intake, [intake] { intake->make_room(intake->argument); });
}

intake_result wait_for_head(http_intake *intake)
{
    if (intake->held.size() >= http_head_max_size) {
        return refuse(intake, "head too long", http_status_header_fields_too_large);
    }
    const int refusal = http_head_line_refusal(intake->held);
    return refusal == 0 ? intake_result::waits : refuse(intake, "header too long", refusal);
}

/// The request is whole, and the library has it: what is held, if anything, belongs to the next one.
intake_result begin_answering(http_intake *intake)
{
    intake->phase = message_phase::answering;
    if (intake->held.empty()) {
        std::string{}.swap(intake->held); // it has been wiped
    }
    return intake_result::moved_on;
}

std::size_t lifted_size(const http_intake *intake)
{
    std::size_t size = 0;
    for (const http_head_lifted &lifted : intake->lifted) {
        size += lifted.value.capacity();
    }
    return size;
}

intake_result give_message(http_intake *intake)
{
    // The library keeps all of it. The checks are going to keep a part of the body beside that: until
    // they say how much, its size is taken for it.
    intake->kept = intake->body.text.size();
    std::string bytes = http_body_join(std::exchange(intake->head, {}), &intake->body);
    const wiped_at_end wiping{&bytes}; // a password is in it
    intake->handed = bytes.size() + lifted_size(intake);
    if (!is_admitted(intake)) {
        return intake_result::ended;
    }
    http_parser_begin(intake->connection);
    if (!feed(intake, bytes)) {
        return intake_result::ended;
    }
    if (has_reached_its_route(intake)) {
        return begin_answering(intake);
    }
    const bool is_too_long =
        htparser_get_content_length(intake->connection->parser) > http_server_max_body_size;
    return has_route(intake) && is_too_long
               ? refuse(intake, "body too long", http_status_content_too_large)
               : refuse(intake, "no http request", http_status_bad_request);
}

intake_result begin_body(http_intake *intake, const http_head &head)
{
    if (!head.chunked && head.body_size > http_server_max_body_size) {
        return refuse(intake, "body too long", http_status_content_too_large);
    }
    intake->body.chunked = head.chunked;
    intake->body.chunks = {};
    intake->body.announced = static_cast<std::size_t>(head.body_size);
    intake->phase = message_phase::body;
    if (head.expects_continue) {
        constexpr std::string_view leave = "HTTP/1.1 100 Continue\r\n\r\n";
        bufferevent_write(intake->connection->bev, leave.data(), leave.size());
    }
    return intake_result::moved_on;
}

/// A step has moved on when there may be more to do with what is held.
intake_result take_head(http_intake *intake)
{
    if (intake->scanned == 0) {
        http_held_take_off(&intake->held,
                           std::min(intake->held.find_first_not_of("\r\n"), intake->held.size()));
    }
    const std::size_t length = http_head_length(intake->held, &intake->scanned);
    if (length == 0) {
        return wait_for_head(intake);
    }
    http_head head = http_head_filter(std::string_view{intake->held}.substr(0, length));
    if (head.refusal != nullptr) {
        return refuse(intake, head.refusal, head.refusal_status);
    }
    http_held_take_off(&intake->held, length);
    intake->scanned = 0;
    intake->head = std::move(head.text);
    intake->lifted = std::move(head.lifted);
    intake->wants_close = head.wants_close;
    intake->wants_keep_alive = head.wants_keep_alive;
    return head.chunked || head.body_size != 0 ? begin_body(intake, head) : give_message(intake);
}

intake_result take_body(http_intake *intake)
{
    if (intake->held.empty()) {
        return intake_result::waits;
    }
    switch (http_body_take(&intake->body, &intake->held)) {
    case chunks_result::wants_more:
        return intake_result::waits;
    case chunks_result::whole:
        return give_message(intake);
    case chunks_result::too_long:
        return refuse(intake, "body too long", http_status_content_too_large);
    case chunks_result::bad:
        break;
    }
    return end(intake, "chunks that are none");
}

intake_result take_nothing(http_intake *intake)
{
    return intake->held.size() <= max_held ? intake_result::waits
                                           : end(intake, "too much behind a request");
}

intake_result take_held(http_intake *intake)
{
    switch (intake->phase) {
    case message_phase::head:
        return take_head(intake);
    case message_phase::body:
        return take_body(intake);
    case message_phase::answering:
        return take_nothing(intake);
    case message_phase::refused:
        break;
    }
    return intake_result::waits;
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

/// Whether the connection stays when the request is answered, as if the library had read the header.
void tell_keep_alive(const http_intake *intake, evhtp_request_t *request)
{
    if (request->proto == EVHTP_PROTO_11 && intake->wants_close) {
        request->flags &= static_cast<std::uint16_t>(~EVHTP_REQ_FLAG_KEEPALIVE);
    } else if (request->proto != EVHTP_PROTO_11 && intake->wants_keep_alive) {
        request->flags |= EVHTP_REQ_FLAG_KEEPALIVE;
    }
}

/// The parser has all headers: the lifted ones join them before any route looks.
evhtp_res on_headers(evhtp_request_t *request, evhtp_headers_t *headers, void *argument) noexcept
{
    auto *const intake = static_cast<http_intake *>(argument);
    tell_keep_alive(intake, request);
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
    http_parser_share(connection);
}

intake_result http_intake_read(http_intake *intake)
{
    if (intake->phase == message_phase::refused) {
        return throw_away(intake);
    }
    http_held_take_over(&intake->held, bufferevent_get_input(intake->connection->bev));
    return take_all_held(intake);
}

intake_result http_intake_written(http_intake *intake)
{
    if (intake->phase != message_phase::answering) {
        return intake_result::waits;
    }
    bufferevent *const bev = intake->connection->bev;
    if (is_answered(intake)) { // and will be freed
        http_held_wipe(intake->connection->request->buffer_in);
    }
    if (!survives(intake,
                  [intake, bev] { intake->library.write(bev, intake->library.argument); })) {
        return intake_result::ended;
    }
    if (intake->connection->request != nullptr) {
        return intake_result::waits;
    }
    // The library has freed the answered request: the next one may come.
    intake->phase = message_phase::head;
    intake->lifted = {};
    intake->handed = 0;
    intake->kept = 0;
    intake->body.chunked = false;
    if (intake->held.empty()) {
        return intake_result::moved_on;
    }
    // The end of a client that has said all must not overtake what it said.
    bufferevent_disable(bev, EV_READ);
    return intake_result::has_next;
}

intake_result http_intake_next(http_intake *intake)
{
    bufferevent_enable(intake->connection->bev, EV_READ); // a request that is checked ends it again
    return take_all_held(intake);
}

void http_intake_end(http_intake *intake)
{
    http_held_wipe(&intake->held);
    http_held_wipe(&intake->body.text);
    if (const evhtp_request_t *const request = intake->connection->request; request != nullptr) {
        http_held_wipe(request->buffer_in);
    }
    http_parser_leave(intake->connection);
    if (intake->gone != nullptr) {
        *intake->gone = true;
    }
}

std::size_t http_intake_size(const http_intake *intake)
{
    const std::size_t request = intake->handed != 0 ? intake->handed : lifted_size(intake);
    return intake->held.capacity() + intake->head.capacity() + intake->body.text.capacity() +
           request + intake->kept + intake->refused_room;
}

bool http_intake_is_paused(const http_intake *intake)
{
    return (intake->connection->flags & EVHTP_CONN_FLAG_PAUSED) != 0;
}
