#pragma once

#include <cjson/cJSON.h>

#include <string_view>

/// The member's text, borrowed from the object; empty when there is no object, no such member, or no
/// text in it.
[[nodiscard]] const char *json_text_or_empty(const cJSON *object, const char *name);

/// True when a string of the (well-formed) JSON text holds a NUL, raw or escaped. The parser's C
/// strings would end there, so what is checked would not be what was sent.
[[nodiscard]] bool json_has_nul_in_string(std::string_view json);
