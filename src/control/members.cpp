#include "control/members.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "logger/fatal.h"
#include "text/rfc3339.h"
#include "text/utf8.h"

namespace {

constexpr char log_category[] = "control";

/// Of a whole character of at most three bytes, which what is escaped has.
unsigned code_of(std::string_view character)
{
    const auto byte = [character](std::size_t i) {
        return static_cast<unsigned char>(character[i]);
    };
    switch (character.size()) {
    case 1:
        return byte(0);
    case 2:
        return (byte(0) & 0x1fU) << 6 | (byte(1) & 0x3fU);
    case 3:
        return (byte(0) & 0x0fU) << 12 | (byte(1) & 0x3fU) << 6 | (byte(2) & 0x3fU);
    default:
        return 0;
    }
}

/// JSON itself has escaped what is below the space.
bool is_escaped(unsigned code)
{
    const auto is_in = [code](unsigned first, unsigned last) {
        return code >= first && code <= last;
    };
    return is_in(0x7f, 0x9f) || code == 0x061c || is_in(0x200e, 0x200f) || is_in(0x2028, 0x202e) ||
           is_in(0x2066, 0x2069);
}

} // namespace

json_ptr control_object()
{
    json_ptr object{cJSON_CreateObject()};
    REQUIRE_MEMORY(object, "object");
    return object;
}

void control_add_text(cJSON *object, const char *name, std::string_view text)
{
    REQUIRE_MEMORY(cJSON_AddStringToObject(object, name, utf8_mended(text).c_str()), name);
}

void control_add_text_or_null(cJSON *object, const char *name, const char *text)
{
    if (text == nullptr) {
        control_add_null(object, name);
    } else {
        control_add_text(object, name, text);
    }
}

void control_add_number(cJSON *object, const char *name, double number)
{
    REQUIRE_MEMORY(cJSON_AddNumberToObject(object, name, number), name);
}

void control_add_number_or_null(cJSON *object, const char *name, bool is_known, double number)
{
    if (is_known) {
        control_add_number(object, name, number);
    } else {
        control_add_null(object, name);
    }
}

void control_add_bool(cJSON *object, const char *name, bool value)
{
    REQUIRE_MEMORY(cJSON_AddBoolToObject(object, name, value ? 1 : 0), name);
}

void control_add_null(cJSON *object, const char *name)
{
    REQUIRE_MEMORY(cJSON_AddNullToObject(object, name), name);
}

void control_add_moment(cJSON *object, const char *name, std::int64_t moment)
{
    control_add_text_or_null(object, name, moment == 0 ? nullptr : text_rfc3339(moment).c_str());
}

void control_add_address(cJSON *object, const char *name, in_addr_t address)
{
    char text[INET_ADDRSTRLEN];
    const in_addr in{address};
    control_add_text_or_null(object, name,
                             address == 0 ? nullptr : inet_ntop(AF_INET, &in, text, sizeof text));
}

cJSON *control_add_object(cJSON *object, const char *name)
{
    cJSON *const added = cJSON_AddObjectToObject(object, name);
    REQUIRE_MEMORY(added, name);
    return added;
}

cJSON *control_add_list(cJSON *object, const char *name)
{
    cJSON *const added = cJSON_AddArrayToObject(object, name);
    REQUIRE_MEMORY(added, name);
    return added;
}

void control_append(cJSON *list, json_ptr element)
{
    cJSON_AddItemToArray(list, element.release());
}

std::string control_print(const cJSON *document)
{
    const json_text printed{cJSON_PrintUnformatted(document)};
    REQUIRE_MEMORY(printed, "text");
    std::string text;
    for (std::string_view rest = printed.get(); !rest.empty();) {
        const std::string_view character =
            rest.substr(0, std::max<std::size_t>(utf8_length(rest), 1));
        const unsigned code = code_of(character);
        if (is_escaped(code)) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", code & 0xffffU);
            text += escape;
        } else {
            text += character;
        }
        rest.remove_prefix(character.size());
    }
    return text;
}
