#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// The headers of a request to a server: the client's own, and those that the caller wants.

struct http_client_header {
    std::string name;
    std::string value;
    bool used = false; // replaced one of the client's own headers
};

struct http_client_default_headers {
    std::string host;
    const char *user_agent = nullptr;          // null: none is sent
    std::optional<std::size_t> content_length; // none: no body
};

/// Appends the client's own headers to the head, each with the caller's value where the caller names
/// it too, and then the caller's others. False (logged) for a header that would forge another one.
[[nodiscard]] bool http_client_headers_add(std::string *head,
                                           const http_client_default_headers &defaults,
                                           std::vector<http_client_header> headers);
