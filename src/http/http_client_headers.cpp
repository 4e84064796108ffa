#include "http/http_client_headers.h"

#include <event2/util.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>

#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "http_client";

/// 32 hexadecimal digits; none when the random generator fails.
std::optional<std::string> generate_xreqid()
{
    constexpr char digits[] = "0123456789abcdef";
    std::array<unsigned char, 16> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        return std::nullopt;
    }
    std::string text;
    for (const unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
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

/// libevent lets a folded line through; neither side of a header may end its line at all.
bool add_header(evkeyvalq *output, const std::string &name, const std::string &value)
{
    LOG_TRACE("%s - adding header %s: %s", __func__, name.c_str(), value.c_str());
    if (!name_is_clean(name) || !value_is_clean(value) ||
        evhttp_add_header(output, name.c_str(), value.c_str()) != 0) {
        LOG_ERROR("%s - invalid header %s", __func__, name.c_str());
        return false;
    }
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

} // namespace

bool http_client_headers_add(evhttp_request *request, const http_client_default_headers &defaults,
                             std::vector<http_client_header> headers)
{
    evkeyvalq *output = evhttp_request_get_output_headers(request);
    for (const own_header &own : own_headers(defaults)) {
        if (!own.value) {
            continue;
        }
        const auto replacing =
            std::find_if(headers.begin(), headers.end(), [&own](const http_client_header &header) {
                return !header.used && evutil_ascii_strcasecmp(header.name.c_str(), own.name) == 0;
            });
        if (replacing != headers.end()) {
            replacing->used = true;
        }
        const std::string &value = replacing != headers.end() ? replacing->value : *own.value;
        if (!add_header(output, own.name, value)) {
            return false;
        }
    }
    return std::all_of(headers.begin(), headers.end(), [output](const http_client_header &header) {
        return header.used || add_header(output, header.name, header.value);
    });
}
