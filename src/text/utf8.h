#pragma once

#include <cstddef>
#include <string_view>

/// The length of the UTF-8 sequence that `text` begins with; 0 when it is none, and for no text. What is
/// overlong, a surrogate or beyond U+10FFFF is none.
[[nodiscard]] std::size_t utf8_length(std::string_view text);

[[nodiscard]] bool is_utf8(std::string_view text);
