#pragma once

#include <array>
#include <cstdint>

enum class hex_letters { lower, upper };

/// The two hexadecimal digits of a byte.
constexpr std::array<char, 2> hex_digits(std::uint8_t byte,
                                         hex_letters letters = hex_letters::lower)
{
    const char *const digits =
        letters == hex_letters::lower ? "0123456789abcdef" : "0123456789ABCDEF";
    return {digits[byte >> 4], digits[byte & 0x0f]};
}
