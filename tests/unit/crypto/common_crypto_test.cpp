#include "crypto/common_crypto.h"

#include <gtest/gtest.h>

#include "fakes/captured_log.h"

namespace {

std::vector<std::uint8_t> bytes_of(std::string_view text)
{
    return {text.begin(), text.end()};
}

std::string hex(std::span<const std::uint8_t> bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes) {
        constexpr char digits[] = "0123456789abcdef";
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

struct vector_case {
    const char *name, *plain, *base64;
};
class Base64Vector : public testing::TestWithParam<vector_case> {};

TEST_P(Base64Vector, EncodesAndDecodes)
{
    const std::vector<std::uint8_t> plain = bytes_of(GetParam().plain);
    EXPECT_EQ(common_crypto_base64_encode(plain), GetParam().base64);
    EXPECT_EQ(common_crypto_base64_decode(GetParam().base64), plain);
}

INSTANTIATE_TEST_SUITE_P(Rfc4648, Base64Vector,
                         testing::Values(vector_case{"f", "f", "Zg=="},
                                         vector_case{"fo", "fo", "Zm8="},
                                         vector_case{"foo", "foo", "Zm9v"},
                                         vector_case{"foob", "foob", "Zm9vYg=="},
                                         vector_case{"fooba", "fooba", "Zm9vYmE="},
                                         vector_case{"foobar", "foobar", "Zm9vYmFy"},
                                         vector_case{"PlusAndSlash", "\xfb\xff\xbf", "+/+/"}),
                         [](const auto &row) { return std::string{row.param.name}; });

TEST(Base64, RoundTripsEveryLengthAcrossTheLibrarysBlocks)
{
    std::vector<std::uint8_t> plain;
    for (int length = 1; length <= 8200; length += length < 1600 ? 1 : 601) {
        while (plain.size() < static_cast<std::size_t>(length)) {
            plain.push_back(static_cast<std::uint8_t>(plain.size() * 37));
        }
        const auto text = common_crypto_base64_encode(plain);
        ASSERT_TRUE(text);
        ASSERT_EQ(text->find('\n'), std::string::npos);
        ASSERT_EQ(common_crypto_base64_decode(*text), plain) << length;
    }
}

struct refused_case {
    const char *name, *text;
};
class Base64Refused : public testing::TestWithParam<refused_case> {};

TEST_P(Base64Refused, FailsWithItsLogLine)
{
    const captured_log log;
    EXPECT_EQ(common_crypto_base64_decode(GetParam().text), std::nullopt);
    EXPECT_TRUE(log.has("ERROR common_crypto - Base64 decode failed with code: 0"));
}

INSTANTIATE_TEST_SUITE_P(Texts, Base64Refused,
                         testing::Values(refused_case{"ANewlineInside", "Zm9v\nYmFy"},
                                         refused_case{"ANewlineThatKeepsTheLength", "Zm9vYm\nF"},
                                         refused_case{"ANewlineAtTheEnd", "Zm9v\n"},
                                         refused_case{"ABlank", "Zm9 "},
                                         refused_case{"AUrlSafeCharacter", "Zm9-"},
                                         refused_case{"NoMultipleOfFour", "Zm9vY"},
                                         refused_case{"PaddingAlone", "===="},
                                         refused_case{"ThreePaddings", "Z==="},
                                         refused_case{"PaddingInside", "Zg==Zm9v"},
                                         refused_case{"PaddingBeforeACharacter", "Zg=v"}),
                         [](const auto &row) { return std::string{row.param.name}; });

TEST(Base64, RefusesOneBadCharacterInALongText)
{
    std::string text(4096, 'A');
    ASSERT_TRUE(common_crypto_base64_decode(text));
    text[2000] = '*';
    EXPECT_FALSE(common_crypto_base64_decode(text));
}

TEST(Base64, RefusesANulInside)
{
    EXPECT_FALSE(common_crypto_base64_decode(std::string_view{"Zm\0v", 4}));
}

TEST(NullInput, FailsEverywhereWithItsLogLine)
{
    captured_log log;
    EXPECT_FALSE(common_crypto_base64_encode({}));
    EXPECT_FALSE(common_crypto_base64_decode(std::string_view{}));
    EXPECT_FALSE(common_crypto_sha256({}));
    EXPECT_EQ(log.count("ERROR common_crypto - Passed buffer must be non null"), 3);
}

TEST(EmptyInput, FailsEverywhereWithItsLogLine)
{
    captured_log log;
    const std::uint8_t byte = 0;
    EXPECT_FALSE(common_crypto_base64_encode({&byte, 0}));
    EXPECT_FALSE(common_crypto_base64_decode(""));
    EXPECT_FALSE(common_crypto_sha256({&byte, 0}));
    EXPECT_EQ(log.count("ERROR common_crypto - Length of passed buffer must be greater than zero"),
              3);
}

TEST(Sha256, GivesTheKnownDigests)
{
    const auto abc = common_crypto_sha256(bytes_of("abc"));
    ASSERT_TRUE(abc);
    EXPECT_EQ(hex(*abc), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    const auto two_blocks =
        common_crypto_sha256(bytes_of("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"));
    ASSERT_TRUE(two_blocks);
    EXPECT_EQ(hex(*two_blocks), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

} // namespace
