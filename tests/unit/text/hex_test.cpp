#include "text/hex.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

std::string text_of(std::array<char, 2> digits)
{
    return {digits.begin(), digits.end()};
}

TEST(Hex, HasTwoDigitsForEveryByte)
{
    for (unsigned byte = 0; byte < 256; ++byte) {
        std::array<char, 3> lower{};
        std::array<char, 3> upper{};
        std::snprintf(lower.data(), lower.size(), "%02x", byte);
        std::snprintf(upper.data(), upper.size(), "%02X", byte);
        EXPECT_EQ(text_of(hex_digits(static_cast<std::uint8_t>(byte))), lower.data());
        EXPECT_EQ(text_of(hex_digits(static_cast<std::uint8_t>(byte), hex_letters::upper)),
                  upper.data());
    }
}

} // namespace
