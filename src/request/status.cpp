#include "request/status.h"

const char *http_status_phrase(int status)
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
    return "Unknown";
}
