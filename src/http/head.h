#pragma once

#include <event2/http.h>

#include <cstdint>
#include <string_view>

/// The head of an HTTP answer: its status line and headers, and what they say of the body.

inline constexpr int http_client_headers_max = 128;

enum class http_client_framing { none, counted, chunked, until_end };

struct http_client_head {
    int code = 0;
    http_client_framing framing = http_client_framing::until_end;
    std::uint64_t length = 0; // of a counted body
    bool leaves_open = false; // the connection may serve another request
};

/// Reads a head with the blank line at its end, and appends its headers to the list. False when it
/// is no HTTP/1, holds more than 128 headers, or leaves open where the body ends.
[[nodiscard]] bool http_client_head_parse(std::string_view text, evkeyvalq *headers,
                                          http_client_head *head);
