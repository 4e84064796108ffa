#pragma once

#include <array>
#include <cstddef>

/// The HTTP statuses that the server answers with. A new one needs its enumerator and its phrase, both
/// here; the metrics then count it. Answers of the cloud are compared with them too.
enum http_status : int {
    http_status_ok = 200,
    http_status_bad_request = 400,
    http_status_unauthorized = 401,
    http_status_forbidden = 403,
    http_status_not_found = 404,
    http_status_conflict = 409,
    http_status_precondition_failed = 412,
    http_status_content_too_large = 413,
    http_status_uri_too_long = 414,
    http_status_failed_dependency = 424,
    http_status_header_fields_too_large = 431,
    http_status_internal_error = 500,
    http_status_not_implemented = 501,
    http_status_unavailable = 503,
};

/// Its phrase, as registered; null for another number.
[[nodiscard]] constexpr const char *http_status_registered_phrase(int status)
{
    switch (static_cast<http_status>(status)) {
    case http_status_ok:
        return "OK";
    case http_status_bad_request:
        return "Bad Request";
    case http_status_unauthorized:
        return "Unauthorized";
    case http_status_forbidden:
        return "Forbidden";
    case http_status_not_found:
        return "Not Found";
    case http_status_conflict:
        return "Conflict";
    case http_status_precondition_failed:
        return "Precondition Failed";
    case http_status_content_too_large:
        return "Content Too Large";
    case http_status_uri_too_long:
        return "URI Too Long";
    case http_status_failed_dependency:
        return "Failed Dependency";
    case http_status_header_fields_too_large:
        return "Request Header Fields Too Large";
    case http_status_internal_error:
        return "Internal Server Error";
    case http_status_not_implemented:
        return "Not Implemented";
    case http_status_unavailable:
        return "Service Unavailable";
    }
    return nullptr;
}

/// The same; of another number the text "Unknown".
[[nodiscard]] const char *http_status_phrase(int status);

namespace http_status_detail {
inline constexpr int end = 600; // of what can be a status

constexpr std::size_t count()
{
    std::size_t found = 0;
    for (int status = 0; status < end; ++status) {
        if (http_status_registered_phrase(status) != nullptr) {
            ++found;
        }
    }
    return found;
}
} // namespace http_status_detail

/// All of them, the smallest first.
inline constexpr auto http_statuses = [] {
    std::array<int, http_status_detail::count()> statuses{};
    std::size_t found = 0;
    for (int status = 0; status < http_status_detail::end; ++status) {
        if (http_status_registered_phrase(status) != nullptr) {
            statuses[found++] = status;
        }
    }
    return statuses;
}();
