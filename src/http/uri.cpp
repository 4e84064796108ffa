#include "http/uri.h"

#include <event2/util.h>

#include <algorithm>

#include "handles/libevent.h"
#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "http_client";
constexpr std::uint16_t http_port = 80;
constexpr std::uint16_t https_port = 443;

/// Blanks and control characters would break the request line apart.
bool uri_is_clean(const std::string &uri)
{
    return std::none_of(uri.begin(), uri.end(),
                        [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == '\x7f'; });
}

std::string joined_path(const evhttp_uri *uri)
{
    const char *path = evhttp_uri_get_path(uri);
    const char *query = evhttp_uri_get_query(uri);
    std::string text{path != nullptr && *path != '\0' ? path : "/"};
    return query != nullptr ? text.append("?").append(query) : text;
}

std::string without_brackets(const std::string &host)
{
    return host.size() > 2 && host.front() == '[' ? host.substr(1, host.size() - 2) : host;
}

std::optional<http_client_scheme> scheme_of(const char *scheme)
{
    if (scheme != nullptr && evutil_ascii_strcasecmp(scheme, "https") == 0) {
        return http_client_scheme::https;
    }
    if (scheme != nullptr && evutil_ascii_strcasecmp(scheme, "http") == 0) {
        return http_client_scheme::http;
    }
    return std::nullopt;
}

std::uint16_t port_of(const evhttp_uri *uri, http_client_scheme scheme)
{
    const int port = evhttp_uri_get_port(uri);
    if (port >= 0) {
        return static_cast<std::uint16_t>(port);
    }
    return scheme == http_client_scheme::https ? https_port : http_port;
}

} // namespace

std::optional<http_client_target> http_client_uri_parse(const std::string &text)
{
    const evhttp_uri_ptr uri{
        uri_is_clean(text) ? evhttp_uri_parse_with_flags(text.c_str(), EVHTTP_URI_NONCONFORMANT)
                           : nullptr};
    if (uri == nullptr) {
        LOG_ERROR("%s - cannot parse uri: %s", __func__, text.c_str());
        return std::nullopt;
    }
    const char *host = evhttp_uri_get_host(uri.get());
    if (host == nullptr || *host == '\0') {
        LOG_ERROR("%s - no host in uri: %s", __func__, text.c_str());
        return std::nullopt;
    }
    const std::optional<http_client_scheme> scheme = scheme_of(evhttp_uri_get_scheme(uri.get()));
    if (!scheme) {
        LOG_ERROR("%s - invalid scheme in uri: %s", __func__, text.c_str());
        return std::nullopt;
    }
    return http_client_target{*scheme, host, without_brackets(host), port_of(uri.get(), *scheme),
                              joined_path(uri.get())};
}
