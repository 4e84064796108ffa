#include "request/status.h"

const char *http_status_phrase(int status)
{
    const char *const phrase = http_status_registered_phrase(status);
    return phrase != nullptr ? phrase : "Unknown";
}
