#include "json/text.h"

#include "text/or_empty.h"

const char *json_text_or_empty(const cJSON *object, const char *name)
{
    return text_or_empty(cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name)));
}

bool json_has_nul_in_string(std::string_view json)
{
    if (json.find("\\u0000") == std::string_view::npos &&
        json.find('\0') == std::string_view::npos) {
        return false; // nearly always
    }
    bool inside = false;
    for (std::size_t i = 0; i < json.size(); ++i) {
        if (json[i] == '"') {
            inside = !inside;
        }
        if (inside && json[i] == '\\') {
            ++i; // what is escaped: a quote does not end the string, a backslash begins no escape
            if (json.substr(i, 5) == "u0000") {
                return true;
            }
        }
        if (inside && i < json.size() && json[i] == '\0') {
            return true;
        }
    }
    return false;
}
