#include "request/input.h"

#include <event2/buffer.h>
#include <sys/socket.h>

#include <cstring>

#include "logger/fatal.h"
#include "velm_utils.h"

namespace {
constexpr char log_category[] = "velm_http_server";
} // namespace

bool request_text_fits(const char *text, std::size_t limit)
{
    return text != nullptr && *text != '\0' && strnlen(text, limit + 1) <= limit;
}

const char *request_header(const evhtp_request_t *request, const char *name)
{
    return evhtp_header_find(request->headers_in, name);
}

const char *request_path(const evhtp_request_t *request)
{
    const evhtp_uri_t *const uri = request->uri;
    return uri == nullptr || uri->path == nullptr ? nullptr : uri->path->full;
}

const cJSON *request_auth(const cJSON *body)
{
    return cJSON_GetObjectItemCaseSensitive(body, "auth");
}

std::optional<std::string> request_body_copy(const evhtp_request_t *request, const char *caller,
                                             const char *object)
{
    const allocation_name naming{caller, object};
    std::string body(evbuffer_get_length(request->buffer_in), '\0');
    if (body.empty()) {
        return body;
    }
    const ev_ssize_t copied = evbuffer_copyout(request->buffer_in, body.data(), body.size());
    if (copied < 0 || static_cast<std::size_t>(copied) != body.size()) {
        return std::nullopt;
    }
    return body;
}

std::string request_body_require(const evhtp_request_t *request, const char *caller,
                                 const char *object)
{
    std::optional<std::string> body = request_body_copy(request, caller, object);
    if (!body.has_value()) {
        fatal_call(log_category, __FILE__, __LINE__, caller,
                   "evbuffer_copyout(req->buffer_in, body_buf, body_len)", -1);
    }
    return std::move(*body);
}

std::optional<in_addr> request_peer_address(const evhtp_request_t *request)
{
    const sockaddr *address = request->conn->saddr;
    if (address == nullptr || address->sa_family != AF_INET) {
        return std::nullopt;
    }
    sockaddr_in peer{};
    std::memcpy(&peer, address, sizeof peer);
    return peer.sin_addr;
}

std::optional<std::string> request_address_text(const std::optional<in_addr> &address)
{
    return address.has_value() ? velm_utils_print_ip_address(
                                     reinterpret_cast<const std::uint8_t *>(&address->s_addr))
                               : std::nullopt;
}

std::span<const std::uint8_t> request_bytes(std::string_view text)
{
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}
