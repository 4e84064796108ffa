#include "velm_http_server_intake.h"

#include <event2/buffer.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "handles/evhtp.h"
#include "handles/memory.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "velm_http_server";

/// What may wait behind a request that is being answered, or as an unfinished head.
constexpr std::size_t max_held = http_head_max_size + http_server_max_body_size;

/// What is read of a client that was refused, so that the answer is not lost: closing with bytes
/// unread would reset the connection, and take from the client what it has not read yet.
constexpr std::size_t max_thrown_away = 1024 * 1024;

constexpr std::size_t growth_step = 8 * 1024; // of what is held

constexpr int status_bad_request = 400;
constexpr int status_body_too_large = 413;
constexpr int status_head_too_large = 431;

void log_refusal(const char *reason)
{
    LOG_WARN("%s - %s", "refuse", reason);
}

intake_result end(http_intake *intake, const char *reason)
{
    log_refusal(reason);
    evhtp_close(intake->connection);
    return intake_result::ended;
}

const char *reason_phrase(int status)
{
    switch (status) {
    case 413:
        return "Payload Too Large";
    case 414:
        return "URI Too Long";
    case 431:
        return "Request Header Fields Too Large";
    case 501:
        return "Not Implemented";
    default:
        return "Bad Request";
    }
}

/// Answers without the library, which has not seen the whole request and will not. At once, since an
/// end that the client has sent already would take what waits to be written with it. No more will
/// come from us, but the client is still heard until it ends too.
intake_result refuse(http_intake *intake, const char *reason, int status)
{
    log_refusal(reason);
    const std::string answer = "HTTP/1.1 " + std::to_string(status) + ' ' + reason_phrase(status) +
                               "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    evhtp_connection_t *const connection = intake->connection;
    bufferevent_disable(connection->bev, EV_WRITE);
    SSL_write(connection->ssl, answer.data(), static_cast<int>(answer.size()));
    SSL_shutdown(connection->ssl);
    ERR_clear_error(); // a client that cannot be told is closed without it
    shutdown(connection->sock, SHUT_WR);
    intake->phase = message_phase::refused;
    // Its room stays, and counts: of many that are refused some are closed at once.
    intake->held.clear();
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

/// Left to itself a text doubles, and what it then has too much would count as held.
void make_room(std::string *text, std::size_t size)
{
    const std::size_t needed = text->size() + size;
    if (needed > growth_step && needed > text->capacity()) {
        std::string grown;
        grown.reserve((needed + growth_step - 1) / growth_step * growth_step);
        grown.append(*text);
        text->swap(grown);
    }
    text->resize(needed);
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
    intake->handed += bytes.size();
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
        return refuse(intake, "no http request", status_bad_request);
    }
    intake->body_left = htparser_get_content_length(intake->connection->parser);
    if (!chunked && intake->body_left > http_server_max_body_size) {
        return refuse(intake, "body too long", status_body_too_large);
    }
    intake->chunked = chunked;
    if (chunked) {
        intake->body_left = http_server_max_body_size;
    }
    intake->phase = message_phase::body;
    return intake_result::moved_on;
}

intake_result wait_for_head(http_intake *intake)
{
    if (intake->held.size() >= http_head_max_size) {
        return refuse(intake, "head too long", status_head_too_large);
    }
    const int refusal = http_head_line_refusal(intake->held);
    return refusal == 0 ? intake_result::waits : refuse(intake, "header too long", refusal);
}

/// The request is whole, and the library has it: what is held, if anything, belongs to the next one.
intake_result begin_answering(http_intake *intake)
{
    intake->phase = message_phase::answering;
    intake->held.shrink_to_fit();
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
        return wait_for_head(intake);
    }
    http_head head = http_head_filter(std::string_view{intake->held}.substr(0, length));
    if (head.refusal != nullptr) {
        return refuse(intake, head.refusal, head.refusal_status);
    }
    intake->held.erase(0, length);
    if (intake->held.capacity() > growth_step) {
        intake->held.shrink_to_fit();
    }
    intake->scanned = 0;
    intake->lifted = std::move(head.lifted);
    for (const http_head_lifted &lifted : intake->lifted) {
        intake->handed += lifted.value.size();
    }
    REQUIRE_MEMORY(evhtp_connection_make_parser(intake->connection), "parser");
    if (!feed(intake, head.text)) {
        return intake_result::ended;
    }
    return has_reached_its_route(intake) ? begin_answering(intake)
                                         : begin_body(intake, head.chunked);
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
    std::string bytes = intake->held.substr(0, size);
    const wiped_at_end wiping{&bytes}; // a password is in it
    OPENSSL_cleanse(intake->held.data(), size);
    intake->held.erase(0, size);
    if (!intake->chunked) {
        intake->body_left -= size;
    }
    if (!feed(intake, bytes)) {
        return intake_result::ended;
    }
    if (intake->too_long) {
        return refuse(intake, "body too long", status_body_too_large);
    }
    return has_reached_its_route(intake) ? begin_answering(intake) : intake_result::moved_on;
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

/// The parser has read how long the next chunk is, and nothing of it yet.
evhtp_res on_new_chunk(evhtp_request_t *, std::uint64_t length, void *argument) noexcept
{
    auto *const intake = static_cast<http_intake *>(argument);
    intake->too_long = intake->too_long || length > intake->body_left;
    intake->body_left -= std::min(length, intake->body_left);
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
    int rc = evhtp_connection_hook(connection, evhtp_hook_on_headers, on_headers, intake);
    REQUIRE_CALL(rc == 0, "evhtp_connection_set_hook(on_headers)", rc);
    rc = evhtp_connection_hook(connection, evhtp_hook_on_new_chunk, on_new_chunk, intake);
    REQUIRE_CALL(rc == 0, "evhtp_connection_set_hook(on_new_chunk)", rc);
    evhtp_connection_drop_parser(connection); // until there is a head for it
}

intake_result http_intake_read(http_intake *intake)
{
    if (intake->phase == message_phase::refused) {
        return throw_away(intake);
    }
    evbuffer *const input = bufferevent_get_input(intake->connection->bev);
    const std::size_t before = intake->held.size();
    make_room(&intake->held, evbuffer_get_length(input));
    evbuffer_remove(input, intake->held.data() + before, intake->held.size() - before);
    return take_all_held(intake);
}

intake_result http_intake_written(http_intake *intake)
{
    if (intake->phase == message_phase::refused) {
        return intake_result::waits;
    }
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
    intake->handed = 0;
    intake->held.shrink_to_fit();
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

void http_intake_end(const http_intake *intake)
{
    if (intake->gone != nullptr) {
        *intake->gone = true;
    }
}

std::size_t http_intake_size(const http_intake *intake)
{
    return intake->held.capacity() + intake->handed;
}

bool http_intake_is_paused(const http_intake *intake)
{
    return (intake->connection->flags & EVHTP_CONN_FLAG_PAUSED) != 0;
}
