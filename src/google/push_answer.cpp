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

/// With its terminator: the parser may look at one byte past a number.
json_ptr parse(const char *body, std::size_t length)
{
    return json_ptr{body == nullptr ? nullptr : cJSON_ParseWithLength(body, length + 1)};
}

const char *failure_words(int code)
{
    switch (code) {
    case 0:
        return "cannot connect to the push service";
    case -1:
        return "no answer in time";
    case -2:
        return "the connection ended without an answer";
    case -3:
        return "the answer is no HTTP";
    case -6:
        return "the answer is too long";
    default:
        return "the connection or its certificate failed";
    }
}

/// Upper-case letters and underscores, at most so many that it is a word of Google's.
bool is_status_word(std::string_view text)
{
    constexpr std::size_t longest = 32;
    return !text.empty() && text.size() <= longest &&
           std::all_of(text.begin(), text.end(),
                       [](char c) { return c == '_' || (c >= 'A' && c <= 'Z'); });
}

/// A longer answer is not taken apart for a word: it may become a tree of megabytes.
constexpr std::size_t longest_with_words = 4096;

std::string refusal_words(const char *body, std::size_t length)
{
    const json_ptr answer = length <= longest_with_words ? parse(body, length) : nullptr;
    const cJSON *error = cJSON_GetObjectItemCaseSensitive(answer.get(), "error");
    const char *status = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(error, "status"));
    return status != nullptr && is_status_word(status) ? std::string{"refused: "} + status
                                                       : "refused";
}

} // namespace

bool velm_fcm_answer_is_about_the_token(const char *body, std::size_t length,
                                        const char *content_type)
{
    if (body == nullptr || length == 0) {
        return true;
    }
    const json_ptr answer = parse(body, length);
    if (cJSON_IsObject(answer.get())) {
        return !names_another_error(answer.get());
    }
    return !is_page({body, length}, content_type == nullptr ? "" : content_type);
}

std::string velm_fcm_answer_words(int code, const char *body, std::size_t length,
                                  const char *content_type)
{
    constexpr int not_found = 404;
    if (code < 1) {
        return failure_words(code);
    }
    if (code == not_found) {
        return velm_fcm_answer_is_about_the_token(body, length, content_type)
                   ? velm_fcm_words_unpaired
                   : velm_fcm_words_stays;
    }
    return refusal_words(body, length);
}
