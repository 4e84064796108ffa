#include "ios_validation/auth_data.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "fakes/app_attest_maker.h"

namespace {

auth_data_wish numbered()
{
    auth_data_wish wish;
    for (std::uint8_t i = 0; i < 32; ++i) {
        wish.rp_id_hash.push_back(i);
        wish.credential_id.push_back(static_cast<std::uint8_t>(0x80 + i));
    }
    wish.flags = 0x41;
    wish.counter = 0x01020304;
    wish.aaguid = aaguid_develop;
    wish.trailer.clear();
    return wish;
}

TEST(IosAuthData, ReadsEveryFieldOfAnAttestation)
{
    const auth_data_wish wish = numbered();
    const auto parsed = ios_auth_data_parse(wish.attestation(), ios_auth_data_mode::attestation);
    ASSERT_TRUE(parsed.has_value());
    EXPECT_TRUE(std::ranges::equal(parsed->rp_id_hash, wish.rp_id_hash));
    EXPECT_EQ(parsed->counter, 0x01020304U);
    EXPECT_EQ(parsed->aaguid, aaguid_develop);
    EXPECT_TRUE(std::ranges::equal(parsed->credential_id, wish.credential_id));
}

TEST(IosAuthData, AnAssertionEndsWithItsCounter)
{
    const test_bytes bytes = numbered().assertion();
    ASSERT_EQ(bytes.size(), 37U);
    const auto parsed = ios_auth_data_parse(bytes, ios_auth_data_mode::assertion);
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->counter, 0x01020304U);
    EXPECT_EQ(parsed->aaguid, (std::array<std::uint8_t, 16>{}));
}

TEST(IosAuthData, ReadsTheWholeRangeOfTheCounter)
{
    auth_data_wish wish = numbered();
    wish.counter = 0xffffffff;
    EXPECT_EQ(ios_auth_data_parse(wish.assertion(), ios_auth_data_mode::assertion)->counter,
              0xffffffffU);
}

TEST(IosAuthData, RefusesEveryLengthThatIsTooShort)
{
    const test_bytes bytes = numbered().attestation();
    ASSERT_EQ(bytes.size(), 87U);
    for (std::size_t length = 0; length <= bytes.size(); ++length) {
        const std::span<const std::uint8_t> start{bytes.data(), length};
        EXPECT_EQ(ios_auth_data_parse(start, ios_auth_data_mode::assertion).has_value(),
                  length >= 37)
            << length;
        EXPECT_EQ(ios_auth_data_parse(start, ios_auth_data_mode::attestation).has_value(),
                  length >= 87)
            << length;
    }
}

TEST(IosAuthData, IgnoresWhatFollows)
{
    auth_data_wish wish = numbered();
    wish.trailer = test_bytes(500, 0xff);
    EXPECT_TRUE(
        ios_auth_data_parse(wish.attestation(), ios_auth_data_mode::attestation).has_value());
    EXPECT_TRUE(ios_auth_data_parse(wish.attestation(), ios_auth_data_mode::assertion).has_value());
}

TEST(IosAuthData, RefusesACredentialIdOfThirtyOneBytes)
{
    auth_data_wish wish = numbered();
    wish.credential_id.pop_back();
    wish.trailer = test_bytes(100);
    EXPECT_FALSE(
        ios_auth_data_parse(wish.attestation(), ios_auth_data_mode::attestation).has_value());
}

TEST(IosAuthData, TakesTheFirstThirtyTwoBytesOfALongerCredentialId)
{
    auth_data_wish wish = numbered();
    const test_bytes first = wish.credential_id;
    wish.credential_id.resize(40, 0xee);
    const auto parsed = ios_auth_data_parse(wish.attestation(), ios_auth_data_mode::attestation);
    ASSERT_TRUE(parsed.has_value());
    EXPECT_TRUE(std::ranges::equal(parsed->credential_id, first));
}

TEST(IosAuthData, NeedsNoMoreThanThirtyTwoBytesOfALongerCredentialId)
{
    test_bytes bytes = numbered().attestation();
    bytes[53] = 0xff;
    bytes[54] = 0xff;
    EXPECT_TRUE(ios_auth_data_parse(bytes, ios_auth_data_mode::attestation).has_value());
}

} // namespace
