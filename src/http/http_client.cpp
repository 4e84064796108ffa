#include "http/http_client.h"

#include <event2/http.h>

#include <algorithm>
#include <memory>
#include <optional>

#include "async/common_async.h"
#include "handles/libevent.h"
#include "handles/memory.h"
#include "http/http_client_connection.h"
#include "http/http_client_dns.h"
#include "http/http_client_headers.h"
#include "http/http_client_tls.h"
#include "http/http_client_uri.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "http_client";

constexpr int default_timeout_s = 50; // libevent's own for reading and writing
constexpr int no_error = -1;

struct method_row {
    const char *name;
    evhttp_cmd_type type;
    bool has_body;
};

// clang-format off
constexpr method_row methods[] = {
    {"GET",    EVHTTP_REQ_GET,    false},
    {"POST",   EVHTTP_REQ_POST,   true},
    {"PATCH",  EVHTTP_REQ_PATCH,  true},
    {"DELETE", EVHTTP_REQ_DELETE, false},
    {"PUT",    EVHTTP_REQ_PUT,    true},
};
// clang-format on
constexpr method_row unknown_method{"unknown", EVHTTP_REQ_POST, true};
static_assert(std::size(methods) == HTTP_CLIENT_PUT + 1);

/// Passes through three stages: asked (looking up, connecting, waiting), done (the outcome is
/// known and waits for its turn), handled. Members die from the last to the first: the connection
/// lets go of the request before the request is freed.
struct http_client_context {
    std::string orig_uri;
    http_client_response_handler handler = nullptr;
    void *argument = nullptr;
    evhttp_cmd_type type = EVHTTP_REQ_GET;
    std::string path_and_query;
    int timeout_s = default_timeout_s;
    std::size_t max_body_size = http_client_body_size_max;
    int error = no_error;   // an evhttp_request_error
    bool in_flight = false; // evhttp holds the request
    bool done = false;
    bool has_response = false;
    evhttp_request_ptr request; // ours until the end: evhttp would free it inside its callback
    std::unique_ptr<http_client_connection> own_connection;
    http_client_connection *connection = nullptr; // own, or the caller's
    http_client_dns_lookup lookup;
    event_ptr timer;
};

struct module_state {
    event_base *base = nullptr;
    std::string user_agent; // empty: none is sent
    std::vector<std::unique_ptr<http_client_context>> contexts;
};
module_state state;

auto context_find(const void *ctx)
{
    return std::find_if(state.contexts.begin(), state.contexts.end(),
                        [ctx](const auto &other) { return other.get() == ctx; });
}

/// Takes the request back from a connection that outlives it.
void context_detach(http_client_context *ctx)
{
    if (ctx->in_flight && ctx->own_connection == nullptr) {
        ctx->in_flight = false;
        evhttp_cancel_request(ctx->request.get());
        http_client_connection_close_on_exec(ctx->connection);
    }
}

void http_client_context_free(http_client_context *ctx)
{
    LOG_TRACE("%s - ctx %p", __func__, static_cast<void *>(ctx));
    context_detach(ctx);
    state.contexts.erase(context_find(ctx));
}

int code_of(const http_client_context *ctx)
{
    return ctx->error >= EVREQ_HTTP_TIMEOUT && ctx->error <= EVREQ_HTTP_DATA_TOO_LONG
               ? -(ctx->error + 1)
               : 0;
}

std::string take_body(evhttp_request *request)
{
    evbuffer *input = evhttp_request_get_input_buffer(request);
    std::string body(evbuffer_get_length(input), '\0');
    evbuffer_remove(input, body.data(), body.size());
    return body;
}

/// Runs as an action: the handler is never called from inside libevent's HTTP code nor from inside
/// the call that starts the request, so it may do what it likes.
void http_process_response(void *argument, short, common_async_context *) noexcept
{
    auto *const ctx = static_cast<http_client_context *>(argument);
    if (!ctx->has_response) {
        LOG_WARN("%s - ctx %p, request failed: %s", __func__, argument, ctx->orig_uri.c_str());
        ctx->handler(code_of(ctx), nullptr, nullptr, 0, ctx->argument);
    } else {
        int code = evhttp_request_get_response_code(ctx->request.get());
        LOG_TRACE("%s - ctx %p, got response with code %d", __func__, argument, code);
        code = code != 0 ? code : code_of(ctx);
        const std::string body = take_body(ctx->request.get());
        ctx->handler(code, evhttp_request_get_input_headers(ctx->request.get()),
                     body.empty() ? nullptr : body.c_str(), body.size(), ctx->argument);
    }
    http_client_context_free(ctx);
}

/// The context when it still waits for its outcome.
http_client_context *context_waiting(const char *caller, void *argument)
{
    const auto found = context_find(argument);
    if (found == state.contexts.end() || (*found)->done) {
        LOG_DEBUG("%s - ctx %p not on the list", caller, argument);
        return nullptr;
    }
    return found->get();
}

void http_request_done(evhttp_request *response, void *argument) noexcept
{
    http_client_context *ctx = context_waiting(__func__, argument);
    if (ctx == nullptr) {
        return;
    }
    ctx->done = true;
    ctx->has_response = response != nullptr;
    ctx->timer.reset();
    common_async_action_call(http_process_response, ctx);
}

/// libevent's completion: the request has left the connection, whatever became of it.
void request_returned(evhttp_request *response, void *argument) noexcept
{
    const auto found = context_find(argument);
    if (found != state.contexts.end()) {
        (*found)->in_flight = false;
        if ((*found)->connection != nullptr) {
            http_client_connection_close_on_exec((*found)->connection);
        }
    }
    http_request_done(response, argument);
}

void http_request_error(evhttp_request_error error, void *argument) noexcept
{
    const int socket_error = EVUTIL_SOCKET_ERROR();
    http_client_context *ctx = context_waiting(__func__, argument);
    if (ctx == nullptr) {
        return;
    }
    if (error == EVREQ_HTTP_TIMEOUT) {
        LOG_WARN("%s - ctx %p, timeout on req: %s", __func__, argument, ctx->orig_uri.c_str());
    } else {
        LOG_WARN("%s - ctx %p, err %d on req: %s", __func__, argument, static_cast<int>(error),
                 ctx->orig_uri.c_str());
        http_client_connection_log_tls_errors(ctx->connection, socket_error);
    }
    ctx->error = error;
}

void request_fail(http_client_context *ctx, evhttp_request_error error)
{
    http_request_error(error, ctx);
    http_request_done(nullptr, ctx);
}

/// libevent's own time-outs begin again with every byte, and while connecting they are reported as
/// a refused connection.
void total_timeout(evutil_socket_t, short, void *argument) noexcept
{
    request_fail(static_cast<http_client_context *>(argument), EVREQ_HTTP_TIMEOUT);
}

void request_send(http_client_context *ctx)
{
    // The callbacks may come before the call returns; they only note the outcome.
    ctx->in_flight = true;
    if (evhttp_make_request(ctx->connection->evcon.get(), ctx->request.get(), ctx->type,
                            ctx->path_and_query.c_str()) != 0) {
        ctx->in_flight = false;
        request_fail(ctx, EVREQ_HTTP_EOF);
        return;
    }
    http_client_connection_close_on_exec(ctx->connection);
}

void address_known(const char *address, void *argument) noexcept
{
    auto *const ctx = static_cast<http_client_context *>(argument);
    if (ctx->done) {
        return;
    }
    // Behind ours, so that ours tells the time-out.
    const int inner_timeout_s = ctx->timeout_s + 1;
    if (address == nullptr || (ctx->connection->evcon == nullptr &&
                               !http_client_connection_open(ctx->connection, state.base, address,
                                                            inner_timeout_s, ctx->max_body_size))) {
        request_fail(ctx, EVREQ_HTTP_EOF);
        return;
    }
    request_send(ctx);
}

std::unique_ptr<http_client_context> make_context(const http_client_request_data &data)
{
    auto ctx = std::make_unique<http_client_context>();
    const allocation_name naming{__func__, "ctx->orig_uri"};
    ctx->orig_uri = data.uri;
    ctx->timeout_s = data.timeout_s > 0 ? data.timeout_s : default_timeout_s;
    ctx->max_body_size = data.max_body_size;
    if (data.connection == nullptr) {
        ctx->own_connection = std::make_unique<http_client_connection>();
    }
    ctx->connection = data.connection != nullptr ? data.connection : ctx->own_connection.get();
    return ctx;
}

bool context_connect(http_client_context *ctx, const http_client_target &target,
                     const http_client_request_data &data)
{
    const std::string &held_for = ctx->connection->target.host;
    if (!held_for.empty() && held_for != target.host) {
        LOG_ERROR("%s - hosts mismatch: %s vs %s", __func__, held_for.c_str(), target.host.c_str());
        return false;
    }
    if (!get_conn_by_scheme(
            ctx->connection, state.base, target,
            {target.bare_host, data.skip_server_verification, data.skip_hostname_verification})) {
        LOG_ERROR("%s - cannot create internal connection object", __func__);
        return false;
    }
    return true;
}

bool context_make_request(http_client_context *ctx, const method_row &method,
                          const http_client_target &target, const http_client_request_data &data)
{
    ctx->type = method.type;
    ctx->path_and_query = target.path_and_query;
    ctx->request.reset(evhttp_request_new(request_returned, ctx));
    REQUIRE_MEMORY(ctx->request, "ctx->request");
    evhttp_request_own(ctx->request.get());
    evhttp_request_set_error_cb(ctx->request.get(), http_request_error);
    http_client_default_headers defaults{
        target.host, state.user_agent.empty() ? nullptr : state.user_agent.c_str(), std::nullopt};
    if (method.has_body) {
        defaults.content_length = data.post_data.size();
        const int rc = evbuffer_add(evhttp_request_get_output_buffer(ctx->request.get()),
                                    data.post_data.data(), data.post_data.size());
        REQUIRE_CALL(rc == 0, "evbuffer_add(output_buffer, data->post_data)", rc);
    }
    return http_client_headers_add(ctx->request.get(), defaults, data.headers);
}

void context_start_timer(http_client_context *ctx)
{
    ctx->timer.reset(evtimer_new(state.base, total_timeout, ctx));
    REQUIRE_MEMORY(ctx->timer, "ctx->timer");
    const timeval limit{ctx->timeout_s, 0};
    const int rc = evtimer_add(ctx->timer.get(), &limit);
    REQUIRE_CALL(rc == 0, "evtimer_add(ctx->timer, &limit)", rc);
}

void context_start(std::unique_ptr<http_client_context> owned)
{
    http_client_context *const ctx = owned.get();
    state.contexts.push_back(std::move(owned));
    context_start_timer(ctx);
    if (ctx->connection->evcon != nullptr) {
        request_send(ctx);
        return;
    }
    ctx->lookup.start(ctx->connection->peer.host.c_str(), address_known, ctx);
}

} // namespace

void http_client_set_event_base(event_base *base)
{
    state.base = base;
    http_client_dns_start(base, {});
}

void http_client_set_user_agent_string(const char *user_agent)
{
    state.user_agent = user_agent != nullptr ? user_agent : "";
}

void http_client_add_header(http_client_request_data *data, const char *header_name,
                            const char *header_value)
{
    REQUIRE_NOT_NULL(data, "data");
    REQUIRE_NOT_NULL(header_name, "header_name");
    REQUIRE_NOT_NULL(header_value, "header_value");
    data->headers.push_back({header_name, header_value});
}

int http_request_internal(http_client_method method, const http_client_request_data &data,
                          http_client_response_handler handler, void *argument)
{
    REQUIRE_NOT_NULL(handler, "handler");
    const std::optional<http_client_target> target = http_client_uri_parse(data.uri);
    if (!target) {
        return -1;
    }
    const auto index = static_cast<std::size_t>(method);
    const method_row &row = index < std::size(methods) ? methods[index] : unknown_method;
    auto ctx = make_context(data);
    ctx->handler = handler;
    ctx->argument = argument;
    if (!context_connect(ctx.get(), *target, data)) {
        return -1;
    }
    LOG_DEBUG("%s (%p) - %s %s", __func__, static_cast<void *>(ctx.get()), row.name,
              data.uri.c_str());
    if (!context_make_request(ctx.get(), row, *target, data)) {
        return -1;
    }
    context_start(std::move(ctx));
    return 0;
}

http_client_connection *http_client_connection_create()
{
    return release_new<http_client_connection>();
}

void http_client_connection_free(http_client_connection *connection)
{
    // With its connection a request goes from libevent's hands back into its context's.
    const auto owned = adopt<http_client_connection>(connection);
    for (const auto &ctx : state.contexts) {
        if (connection == nullptr || ctx->connection != connection) {
            continue;
        }
        if (!ctx->done) {
            request_fail(ctx.get(), EVREQ_HTTP_REQUEST_CANCEL);
        }
        ctx->in_flight = false;
        ctx->connection = nullptr;
    }
}
