#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "handles/cjson.h"

/// Small helpers that several modules share. A null pointer argument is a programming error and
/// ends the process, except where a comment says otherwise.

enum class velm_device_type : int { ios = 0, android = 1, unknown = 2 };

using velm_mac_address = std::array<std::uint8_t, 6>;

/// The member's text, borrowed from the object; null when it is missing or no string. Names are
/// case-sensitive; of doubled members the first counts.
[[nodiscard]] const char *velm_utils_get_field_value_from_json_object(const cJSON *object,
                                                                      const char *field);

/// The member's number; 0 when it is missing or no number.
[[nodiscard]] double velm_utils_get_number_value_from_json_object(const cJSON *object,
                                                                  const char *field);

/// Phones send base64 through JSON encoders that escape "=", "+" and "/" as \u003d, \u002b and
/// \u002f (any case); this gives the characters back. The result is never longer than the input.
[[nodiscard]] std::string
velm_utils_unescape_html_encoded_base64_chars(const char *html_escaped_base64_string);

/// Decimal text.
[[nodiscard]] std::string velm_utils_timestamp_to_string(unsigned long timestamp);

/// Base-10 strtoul; false exactly when it sets errno, and then `dest` is left alone.
/// Part of the interface; only tests call it.
[[nodiscard]] bool velm_utils_parse_timestamp(const char *src, unsigned long *dest);

/// Six fields of one or two hexadecimal digits joined by colons; what follows is ignored.
/// `dest` receives six bytes and is left alone on failure.
[[nodiscard]] bool velm_utils_parse_mac_address(const char *src, std::uint8_t *dest);

/// Dotted IPv4 text to four bytes in network order.
[[nodiscard]] bool velm_utils_parse_ip_address(const char *src, std::uint8_t *dest);

/// Four bytes in network order to dotted text of at most 15 characters; nothing when the C library
/// cannot convert them.
[[nodiscard]] std::optional<std::string> velm_utils_print_ip_address(const std::uint8_t *ip_addr);

/// By case-insensitive prefix "iOS" or "Android".
[[nodiscard]] velm_device_type velm_utils_device_type_from_string(const char *device_type);

/// The pieces between any of the separator characters, trimmed of white space, empty ones left
/// out, as a new array of strings.
[[nodiscard]] json_ptr velm_split_string(const char *string, const char *separator);

/// Logs 1 to 8192 bytes at TRACE as upper-case hexadecimal pairs; null or 0 bytes log nothing.
/// Part of the interface; only tests call it.
void velm_utils_log_hex(const void *bytes, std::size_t count);
