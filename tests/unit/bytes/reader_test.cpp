#include "bytes/reader.h"

#include <gtest/gtest.h>

#include <array>

namespace {

constexpr std::array<std::uint8_t, 8> bytes = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0xff};

TEST(ByteReader, ReadsNumbersOfEitherOrder)
{
    byte_reader in{bytes};
    EXPECT_EQ(in.big_endian(2), 0x0102U);
    EXPECT_EQ(in.little_endian(2), 0x0403U);
    EXPECT_EQ(in.big_endian(1), 0x05U);
    EXPECT_EQ(in.little_endian(1), 0x06U);
    EXPECT_EQ(in.remaining(), 2U);
    EXPECT_EQ(byte_reader{bytes}.big_endian(8), 0x01020304050607ffU);
    EXPECT_EQ(byte_reader{bytes}.little_endian(8), 0xff07060504030201U);
    EXPECT_TRUE(in.ok());
}

TEST(ByteReader, ReadsTextsAndBytesInOrder)
{
    byte_reader in{bytes};
    EXPECT_EQ(in.text(2), "\x01\x02");
    in.skip(1);
    EXPECT_EQ(in.next_byte(), 0x04);
    std::array<std::uint8_t, 4> copy{};
    in.copy_to(copy);
    EXPECT_EQ(copy, (std::array<std::uint8_t, 4>{0x04, 0x05, 0x06, 0x07}));
    EXPECT_EQ(in.remaining(), 1U);
    EXPECT_TRUE(in.ok());
}

TEST(ByteReader, AfterAShortReadYieldsNothingMore)
{
    byte_reader in{bytes};
    in.skip(5);
    EXPECT_EQ(in.big_endian(4), 0U);
    EXPECT_FALSE(in.ok());
    EXPECT_EQ(in.remaining(), 0U);
    EXPECT_EQ(in.next_byte(), 0);
    EXPECT_EQ(in.little_endian(1), 0U);
    EXPECT_EQ(in.text(1), "");
    std::array<std::uint8_t, 1> untouched{7};
    in.copy_to(untouched);
    EXPECT_EQ(untouched[0], 7);
    in.skip(0);
    EXPECT_FALSE(in.ok());
}

TEST(ByteReader, MayBeAskedForAllOfItButNotForMore)
{
    byte_reader whole{bytes};
    whole.skip(bytes.size());
    EXPECT_TRUE(whole.ok());
    byte_reader more{bytes};
    more.skip(std::uint64_t{1} << 40);
    EXPECT_FALSE(more.ok());
}

} // namespace
