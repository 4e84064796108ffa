#include "http/headers.h"

#include <event2/util.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <span>

#include "logger/common_logger.h"
#include "text/hex.h"

namespace {

constexpr char log_category[] = "http_client";

/// 32 hexadecimal digits; none when the random generator fails.
std::optional<std::string> generate_xreqid()
{
    std::array<unsigned char, 16> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        return std::nullopt;
    }
    std::string text;
    for (const unsigned char byte : bytes) {
        const auto digits = hex_digits(byte);
        text.append(digits.begin(), digits.end());
    }
    return text;
}

bool name_is_clean(const std::string &name)
{
    return !name.empty() && std::all_of(name.begin(), name.end(),
                                        [](char c) { return c > ' ' && c < '\x7f' && c != ':'; });
}

bool value_is_clean(const std::string &value)
{
    return value.find_first_of(std::string_view{"\r\n\0", 3}) == std::string::npos;
}

/// Neither side of a header may end its line.
bool add_header(std::string *head, const std::string &name, const std::string &value)
{
    LOG_TRACE("%s - adding header %s: %s", __func__, name.c_str(), value.c_str());
    if (!name_is_clean(name) || !value_is_clean(value)) {
        LOG_ERROR("%s - invalid header %s", __func__, name.c_str());
        return false;
    }
    head->append(name).append(": ").append(value).append("\r\n");
    return true;
}

struct own_header {
    const char *name;
    std::optional<std::string> value; // none: not sent by the client itself
};

std::vector<own_header> own_headers(const http_client_default_headers &defaults)
{
    const auto &length = defaults.content_length;
    return {
        {"Host", defaults.host},
        {"Accept", "*/*"},
        {"Connection", "close"},
        {"User-Agent", defaults.user_agent != nullptr
                           ? std::optional<std::string>{defaults.user_agent}
                           : std::nullopt},
        {"X-Request-ID", generate_xreqid()},
        {"Content-Type", "application/json"},
        {"Content-Length", length ? std::optional{std::to_string(*length)} : std::nullopt},
    };
}

/// The first one of the name that has not been used.
http_client_header *header_find(std::span<http_client_header> headers, const char *name)
{
    for (http_client_header &header : headers) {
        if (!header.used && evutil_ascii_strcasecmp(header.name.c_str(), name) == 0) {
            return &header;
        }
    }
    return nullptr;
}

} // namespace

bool http_client_headers_add(std::string *head, const http_client_default_headers &defaults,
                             std::vector<http_client_header> headers)
{
    for (const own_header &own : own_headers(defaults)) {
        if (!own.value) {
            continue;
        }
        http_client_header *const replacing = header_find(headers, own.name);
        if (replacing != nullptr) {
            replacing->used = true;
        }
        if (!add_header(head, own.name, replacing != nullptr ? replacing->value : *own.value)) {
            return false;
        }
    }
    for (const http_client_header &header : headers) {
        if (!header.used && !add_header(head, header.name, header.value)) {
            return false;
        }
    }
    return true;
}
