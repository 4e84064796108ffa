#include "google/answer.h"

#include "logger/common_logger.h"

json_ptr velm_google_answer_parse(int code, const char *body, std::size_t length,
                                  const char *log_category, const char *function,
                                  const void *request)
{
    LOG_DEBUG("%s [%p] - code: %d", function, request, code);
    if (code != 200) {
        LOG_ERROR("%s [%p] - http request failed: %d", function, request, code);
        return nullptr;
    }
    if (body == nullptr || length == 0) {
        LOG_ERROR("%s [%p] - empty response", function, request);
        return nullptr;
    }
    LOG_TRACE("%s [%p] - body: %.*s", function, request, static_cast<int>(length), body);
    // With its terminator: the parser may look at one byte past a number.
    json_ptr answer{cJSON_ParseWithLength(body, length + 1)};
    if (!cJSON_IsObject(answer.get())) {
        LOG_ERROR("%s [%p] - parse error", function, request);
        return nullptr;
    }
    return answer;
}
