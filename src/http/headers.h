#pragma once

#include <optional>
#include <string>
#include <vector>

#include "http/http_client.h"

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
