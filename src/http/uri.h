#pragma once

#include <cstdint>
#include <optional>
#include <string>

enum class http_client_scheme { http, https };

/// Where a request goes.
struct http_client_target {
    http_client_scheme scheme = http_client_scheme::https;
    std::string host;      // as in the URI: an IPv6 literal keeps its brackets
    std::string bare_host; // without them
    std::uint16_t port = 443;
    std::string path_and_query; // begins with "/"

    [[nodiscard]] bool same_server(const http_client_target &other) const
    {
        return scheme == other.scheme && host == other.host && port == other.port;
    }
};

/// Takes an absolute http or https URI apart; none (logged) when it is not one.
[[nodiscard]] std::optional<http_client_target> http_client_uri_parse(const std::string &text);
