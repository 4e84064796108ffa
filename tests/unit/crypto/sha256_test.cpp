#include "crypto/sha256.h"

#include <gtest/gtest.h>

#include <string_view>

#include "text/hex.h"

namespace {

std::span<const std::uint8_t> bytes_of(std::string_view text)
{
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

std::string hex(const std::optional<sha256_digest> &digest)
{
    std::string text;
    for (const std::uint8_t byte : digest.value()) {
        const auto digits = hex_digits(byte);
        text.append(digits.begin(), digits.end());
    }
    return text;
}

constexpr char of_nothing[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr char of_abc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

TEST(Sha256, IsThatOfTheStandard)
{
    EXPECT_EQ(hex(sha256(bytes_of("abc"))), of_abc);
    EXPECT_EQ(hex(sha256({})), of_nothing);
}

TEST(Sha256, GoesOverTheTailAfterTheHead)
{
    EXPECT_EQ(hex(sha256(bytes_of("a"), bytes_of("bc"))), of_abc);
    EXPECT_EQ(hex(sha256({}, bytes_of("abc"))), of_abc);
    EXPECT_NE(hex(sha256(bytes_of("bc"), bytes_of("a"))), of_abc);
}

TEST(Sha256, KeepsNothingOfTheCallBefore)
{
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(hex(sha256(bytes_of("abc"))), of_abc);
    }
}

} // namespace
