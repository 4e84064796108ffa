#include "control/members.h"

#include <arpa/inet.h>

#include <utility>

#include "logger/fatal.h"
#include "text/rfc3339.h"
#include "text/utf8.h"

namespace {

constexpr char log_category[] = "control";

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
