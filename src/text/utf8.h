#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// The length of the UTF-8 sequence that `text` begins with; 0 when it is none, and for no text. What is
/// overlong, a surrogate or beyond U+10FFFF is none.
[[nodiscard]] std::size_t utf8_length(std::string_view text);

[[nodiscard]] bool is_utf8(std::string_view text);

/// True for a byte that continues a sequence: no text may be cut before it.
[[nodiscard]] constexpr bool utf8_is_continuation(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

/// The text with U+FFFD in the place of each byte that belongs to no UTF-8 sequence.
[[nodiscard]] std::string utf8_mended(std::string_view text);
