#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "handles/cjson.h"

/// Members of the control socket's documents. Every member is always there: null where there is nothing
/// to say. Exhausted memory is fatal.

[[nodiscard]] json_ptr control_object();

/// Bytes that are no UTF-8 become U+FFFD.
void control_add_text(cJSON *object, const char *name, std::string_view text);

/// Null for no text.
void control_add_text_or_null(cJSON *object, const char *name, const char *text);

void control_add_number(cJSON *object, const char *name, double number);
/// Null for a number that is not known.
void control_add_number_or_null(cJSON *object, const char *name, bool is_known, double number);
void control_add_bool(cJSON *object, const char *name, bool value);
void control_add_null(cJSON *object, const char *name);

/// Milliseconds since the epoch as RFC 3339; 0 is null.
void control_add_moment(cJSON *object, const char *name, std::int64_t moment);

/// Dotted; 0 is null.
void control_add_address(cJSON *object, const char *name, in_addr_t address);

/// Borrowed from the object that it is added to.
[[nodiscard]] cJSON *control_add_object(cJSON *object, const char *name);
[[nodiscard]] cJSON *control_add_list(cJSON *object, const char *name);
void control_append(cJSON *list, json_ptr element);

/// As a text. What commands a terminal or turns the direction of writing is escaped: control characters of
/// both ranges, line and paragraph separators, the marks of bidirectional text.
[[nodiscard]] std::string control_print(const cJSON *document);
