#include "http_server/routes.h"

#include <cstring>
#include <utility>

#include "handles/evhtp.h"
#include "http_server/connections.h"
#include "http_server/log.h"
#include "http_server/pause.h"
#include "http_server/refusals.h"
#include "http_server/visits.h"
#include "logger/fatal.h"
#include "request/input.h"
#include "request/paths.h"
#include "request/refusal.h"
#include "velm_request_preprocessor.h"

namespace {

struct http_route {
    request_listed_path path;
    const char *handler; // its name in log lines
    const char *member;  // what the result callback reads of the body beside "auth"; null: nothing
    velm_request_checks checks;
    velm_request_callback callback;
};

// clang-format off
//                                                                                     request assertion user/pass paired device
constexpr http_route route_info      {"/info",      "http_method_info",      nullptr,    {false, false, false, false, false}, http_method_info_handle};
constexpr http_route route_challenge {"/challenge", "http_method_challenge", nullptr,    {true,  false, true,  false, false}, http_method_challenge_handle};
constexpr http_route route_pair      {"/pair",      "http_method_pair",      "pair",     {true,  false, true,  false, false}, http_method_pair_handle};
constexpr http_route route_pairings  {"/pairings",  "http_method_pairings",  nullptr,    {true,  false, true,  false, false}, http_method_pairings_handle};
constexpr http_route route_unpair    {"/unpair",    "http_method_unpair",    "unpair",   {true,  false, true,  false, false}, http_method_unpair_handle};
constexpr http_route route_location  {"/location",  "http_method_location",  "location", {true,  true,  true,  true,  true},  http_method_location_handle};
// clang-format on

bool is_path(const evhtp_request_t *req, const http_route &route)
{
    const char *const path = request_path(req);
    return path != nullptr && std::strcmp(path, route.path) == 0;
}

bool has_header(const evhtp_request_t *req, const char *name)
{
    return request_header(req, name) != nullptr;
}

void require_request(const evhtp_request_t *req, const char *handler)
{
    if (req == nullptr) {
        fatal_null_reference(log_category, __FILE__, __LINE__, handler, "req");
    }
}

/// The request stays paused until the route's result callback answers it. Meanwhile the checks keep of
/// its body what they and the route read; null for a route without a body.
void begin_checks(evhtp_request_t *req, const http_route &route, const velm_request_checks &checks,
                  secret_json_ptr body)
{
    evhtp_pause(req);
    velm_request_preprocessor *const preprocessor = velm_request_preprocessor_create(checks);
    velm_request_preprocessor_attach_request(preprocessor, req);
    velm_request_preprocessor_set_callback(preprocessor, route.callback);
    if (body != nullptr) {
        velm_request_kept_body kept = velm_request_keep(std::move(body), route.member);
        http_connections_count_kept(req->conn, kept.size);
        velm_request_preprocessor_attach_body(preprocessor, std::move(kept));
    }
    LOG_TRACE("%s [%p] - auth start", route.handler, static_cast<void *>(preprocessor));
    velm_request_preprocessor_start(preprocessor);
}

/// The body, which is parsed here and nowhere else; null when it was bad and is answered already.
secret_json_ptr take_body(evhtp_request_t *req, const http_route &route)
{
    velm_request_body parsed = velm_request_parse_request_body(req);
    if (parsed.status != http_status_ok) {
        velm_request_log_refusal_of(req, "request check", "no valid body", nullptr);
        http_visit_tell(req, {.route = route.path,
                              .status = parsed.status,
                              .check = story_request_check,
                              .why = "no valid body"});
        http_server_reply_status(req, static_cast<http_status>(parsed.status));
    }
    return std::move(parsed.body);
}

void begin_route(evhtp_request_t *req, const http_route &route)
{
    LOG_TRACE("%s - start", route.handler);
    require_request(req, route.handler);
    secret_json_ptr body = take_body(req, route);
    if (body != nullptr) {
        begin_checks(req, route, route.checks, std::move(body));
    }
}

void http_method_pair(evhtp_request_t *req)
{
    LOG_TRACE("%s - start", __func__);
    secret_json_ptr body = take_body(req, route_pair);
    if (body == nullptr) {
        return;
    }
    velm_request_checks checks = route_pair.checks;
    checks.assertion = has_header(req, "X-Assertion");
    if (!checks.assertion && !has_header(req, "X-Attestation")) {
        LOG_ERROR("%s - no attestation data", __func__);
        velm_request_log_refusal_of(req, "/pair", "neither X-Assertion nor X-Attestation",
                                    request_auth(body.get()));
        http_visit_tell(req, {.device_id = http_visit_device_id(request_auth(body.get())),
                              .route = route_pair.path,
                              .status = http_status_bad_request,
                              .check = story_request_check,
                              .why = "neither X-Assertion nor X-Attestation"});
        http_server_reply_status(req, http_status_bad_request);
        return;
    }
    begin_checks(req, route_pair, checks, std::move(body));
}

/// "/pair" and "/pairings" are told apart here, by the whole path: registered, one would be taken for
/// a prefix of the other.
void http_method_default(evhtp_request_t *req, void *) noexcept
{
    require_request(req, __func__);
    if (is_path(req, route_pair)) {
        http_method_pair(req);
    } else if (is_path(req, route_pairings)) {
        begin_route(req, route_pairings);
    } else {
        if (http_refusals_tell(request_peer_address(req).value_or(in_addr{}).s_addr)) {
            LOG_WARN("%s - unknown path", __func__);
        }
        http_visit_tell(req, {.status = http_status_not_found,
                              .check = story_path,
                              .why = "no route has this path",
                              .hint = request_path(req)});
        http_server_reply_status(req, http_status_not_found);
    }
}

/// The library compares only as far as the registered path reaches, so whatever begins with it
/// arrives here too.
void serve_exact_path(evhtp_request_t *req, const http_route &route)
{
    if (req != nullptr && !is_path(req, route)) {
        http_method_default(req, nullptr);
        return;
    }
    begin_route(req, route);
}

void http_method_info(evhtp_request_t *req, void *) noexcept
{
    require_request(req, __func__);
    if (!is_path(req, route_info)) {
        http_method_default(req, nullptr);
        return;
    }
    LOG_TRACE("%s - start", __func__);
    begin_checks(req, route_info, route_info.checks, nullptr);
}

void http_method_challenge(evhtp_request_t *req, void *) noexcept
{
    serve_exact_path(req, route_challenge);
}

void http_method_unpair(evhtp_request_t *req, void *) noexcept
{
    serve_exact_path(req, route_unpair);
}

void http_method_location(evhtp_request_t *req, void *) noexcept
{
    serve_exact_path(req, route_location);
}

struct registration {
    const char *path;
    evhtp_callback_cb callback;
    const char *call; // its text, for the fatal line
};

// clang-format off
constexpr registration registrations[] = {
    {"/info",      http_method_info,      "evhtp_set_cb(http_server_instance, \"/info\", http_method_info, ((void *)0))"},
    {"/challenge", http_method_challenge, "evhtp_set_cb(http_server_instance, \"/challenge\", http_method_challenge, ((void *)0))"},
    {"/unpair",    http_method_unpair,    "evhtp_set_cb(http_server_instance, \"/unpair\", http_method_unpair, ((void *)0))"},
    {"/location",  http_method_location,  "evhtp_set_cb(http_server_instance, \"/location\", http_method_location, ((void *)0))"},
};
// clang-format on

} // namespace

void http_server_register_routes(evhtp_t *http_server_instance)
{
    for (const registration &row : registrations) {
        REQUIRE_NOT_NULL(evhtp_set_cb(http_server_instance, row.path, row.callback, nullptr),
                         row.call);
    }
    evhtp_set_gencb(http_server_instance, http_method_default, nullptr);
}
