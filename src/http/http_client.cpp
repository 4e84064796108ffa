#include "http/http_client.h"

#include <event2/http.h>

#include <algorithm>
#include <memory>
#include <optional>

#include "async/common_async.h"
#include "handles/argument.h"
#include "handles/libevent.h"
#include "http/connection.h"
#include "http/dns.h"
#include "http/headers.h"
#include "http/tls.h"
#include "http/uri.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "http_client";

constexpr int default_timeout_s = 50; // what libevent takes for reading and writing
constexpr int no_error = -1;

struct method_row {
    const char *name;
    const char *sent_as;
    bool has_body;
};

// clang-format off
constexpr method_row methods[] = {
    {"GET",    "GET",    false},
    {"POST",   "POST",   true},
    {"PATCH",  "PATCH",  true},
    {"DELETE", "DELETE", false},
    {"PUT",    "PUT",    true},
};
// clang-format on
constexpr method_row unknown_method{"unknown", "POST", true};
static_assert(std::size(methods) == HTTP_CLIENT_PUT + 1);

/// Passes through three stages: asked (looking up, connecting, waiting), done (the outcome is
/// known and waits for its turn), handled. Members die from the last to the first: the connection
/// lets go of the exchange before that dies.
struct http_client_context {
    explicit http_client_context(std::size_t body_size_max) : exchange{body_size_max}
    {
    }

    std::string orig_uri;
    http_client_response_handler handler = nullptr;
    void *argument = nullptr;
    int timeout_s = default_timeout_s;
    int error = no_error; // an evhttp_request_error
    bool done = false;
    bool has_response = false;
    http_client_exchange exchange;
    std::unique_ptr<http_client_connection> own_connection;
    http_client_connection *connection = nullptr; // own, or the caller's
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

void http_client_context_free(http_client_context *ctx)
{
    LOG_TRACE("%s - ctx %p", __func__, static_cast<void *>(ctx));
    if (ctx->connection != nullptr) {
        ctx->connection->cancel(&ctx->exchange);
    }
    state.contexts.erase(context_find(ctx));
}

int code_of(const http_client_context *ctx)
{
    return ctx->error >= EVREQ_HTTP_TIMEOUT && ctx->error <= EVREQ_HTTP_DATA_TOO_LONG
               ? -(ctx->error + 1)
               : 0;
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
        http_client_answer &answer = ctx->exchange.answer;
        LOG_TRACE("%s - ctx %p, got response with code %d", __func__, argument, answer.code());
        const std::string &body = answer.body();
        ctx->handler(answer.code(), answer.headers(), body.empty() ? nullptr : body.c_str(),
                     body.size(), ctx->argument);
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

void http_request_done(bool has_response, void *argument)
{
    http_client_context *ctx = context_waiting(__func__, argument);
    if (ctx == nullptr) {
        return;
    }
    ctx->done = true;
    ctx->has_response = has_response;
    ctx->timer.reset();
    common_async_action_call(http_process_response, ctx);
}

void http_request_error(int error, void *argument)
{
    http_client_context *ctx = context_waiting(__func__, argument);
    if (ctx == nullptr) {
        return;
    }
    if (error == EVREQ_HTTP_TIMEOUT) {
        LOG_WARN("%s - ctx %p, timeout on req: %s", __func__, argument, ctx->orig_uri.c_str());
    } else {
        LOG_WARN("%s - ctx %p, err %d on req: %s", __func__, argument, error,
                 ctx->orig_uri.c_str());
    }
    ctx->error = error;
}

void request_fail(http_client_context *ctx, int error)
{
    http_request_error(error, ctx);
    http_request_done(false, ctx);
}

/// What the connection says; a request that has timed out meanwhile is no longer interested.
void exchange_ended(http_client_exchange *exchange, http_client_end end)
{
    auto *const ctx = static_cast<http_client_context *>(exchange->owner);
    if (end == http_client_answered || end == http_client_not_connected) {
        http_request_done(end == http_client_answered, ctx);
        return;
    }
    if (!ctx->done) {
        http_request_error(end, ctx);
        ctx->connection->log_errors();
    }
    http_request_done(false, ctx);
}

void total_timeout(evutil_socket_t, short, void *argument) noexcept
{
    request_fail(static_cast<http_client_context *>(argument), EVREQ_HTTP_TIMEOUT);
}

std::unique_ptr<http_client_context> make_context(const http_client_request_data &data)
{
    auto ctx = std::make_unique<http_client_context>(data.max_body_size);
    const allocation_name naming{__func__, "ctx->orig_uri"};
    ctx->orig_uri = data.uri;
    ctx->timeout_s = data.timeout_s > 0 ? data.timeout_s : default_timeout_s;
    if (data.connection == nullptr) {
        ctx->own_connection = std::make_unique<http_client_connection>();
    }
    ctx->connection = data.connection != nullptr ? data.connection : ctx->own_connection.get();
    return ctx;
}

bool context_connect(http_client_context *ctx, const http_client_target &target,
                     const http_client_request_data &data)
{
    const std::string &held_for = ctx->connection->target().host;
    if (!held_for.empty() && held_for != target.host) {
        LOG_ERROR("%s - hosts mismatch: %s vs %s", __func__, held_for.c_str(), target.host.c_str());
        return false;
    }
    if (!ctx->connection->lead_to(
            state.base, target,
            {target.bare_host, data.skip_server_verification, data.skip_hostname_verification})) {
        LOG_ERROR("%s - cannot create internal connection object", __func__);
        return false;
    }
    return true;
}

bool context_make_request(http_client_context *ctx, const method_row &method,
                          const http_client_target &target, const http_client_request_data &data)
{
    http_client_exchange &exchange = ctx->exchange;
    exchange.owner = ctx;
    exchange.ended = exchange_ended;
    http_client_default_headers defaults{
        target.host, state.user_agent.empty() ? nullptr : state.user_agent.c_str(), std::nullopt};
    if (method.has_body) {
        defaults.content_length = data.post_data.size();
    }
    exchange.request.append(method.sent_as).append(" ").append(target.path_and_query);
    exchange.request += " HTTP/1.1\r\n";
    if (!http_client_headers_add(&exchange.request, defaults, data.headers)) {
        return false;
    }
    exchange.leaves_open =
        exchange.request.find("\r\nConnection: keep-alive\r\n") != std::string::npos;
    exchange.request += "\r\n";
    if (method.has_body) {
        exchange.request += data.post_data;
    }
    return true;
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
    ctx->connection->send(&ctx->exchange);
}

} // namespace

void http_client_set_event_base(event_base *base)
{
    state.base = base;
    http_client_dns_start(base, {});
}

int http_client_setup_ssl(const char *ca_file)
{
    http_client_dns_reload();
    return http_client_tls_set_up(ca_file) ? 0 : -1;
}

void http_client_prepare_ssl(const char *ca_file)
{
    http_client_tls_prepare(ca_file);
}

void http_client_free_ssl()
{
    http_client_tls_forget();
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
    const auto owned = adopt<http_client_connection>(connection);
    for (const auto &ctx : state.contexts) {
        if (connection == nullptr || ctx->connection != connection) {
            continue;
        }
        if (!ctx->done) {
            request_fail(ctx.get(), EVREQ_HTTP_REQUEST_CANCEL);
        }
        ctx->connection = nullptr;
    }
}
