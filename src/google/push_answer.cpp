#include "google/push_answer.h"

#include <strings.h>

#include <algorithm>
#include <string_view>

#include "handles/cjson.h"

namespace {

bool error_code_is_other(const cJSON *detail)
{
    const cJSON *error_code = cJSON_GetObjectItemCaseSensitive(detail, "errorCode");
    const char *text = cJSON_GetStringValue(error_code);
    return error_code != nullptr && (text == nullptr || std::string_view{text} != "UNREGISTERED");
}

bool names_another_error(const cJSON *answer)
{
    const cJSON *error = cJSON_GetObjectItemCaseSensitive(answer, "error");
    const cJSON *details = cJSON_GetObjectItemCaseSensitive(error, "details");
    const cJSON *detail = nullptr;
    cJSON_ArrayForEach(detail, details)
    {
        if (error_code_is_other(detail)) {
            return true;
        }
    }
    return false;
}

bool begins_with(std::string_view text, std::string_view beginning)
{
    return text.size() >= beginning.size() &&
           strncasecmp(text.data(), beginning.data(), beginning.size()) == 0;
}

/// By its type, or by its first character: no JSON begins with a tag, and pages are served under
/// any type, or none.
bool is_page(std::string_view text, std::string_view content_type)
{
    constexpr std::string_view byte_order_mark = "\xef\xbb\xbf";
    if (text.starts_with(byte_order_mark)) {
        text.remove_prefix(byte_order_mark.size());
    }
    text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
    return !text.empty() && (text.front() == '<' || begins_with(content_type, "text/html") ||
                             begins_with(content_type, "application/xhtml+xml"));
}

} // namespace

bool velm_fcm_answer_is_about_the_token(const char *body, std::size_t length,
                                        const char *content_type)
{
    if (body == nullptr || length == 0) {
        return true;
    }
    // With its terminator: the parser may look at one byte past a number.
    const json_ptr answer{cJSON_ParseWithLength(body, length + 1)};
    if (cJSON_IsObject(answer.get())) {
        return !names_another_error(answer.get());
    }
    return !is_page({body, length}, content_type == nullptr ? "" : content_type);
}
