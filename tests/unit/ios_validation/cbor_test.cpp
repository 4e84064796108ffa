#include "ios_validation/cbor.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>

#include <string>

#include "fakes/app_attest_maker.h"

namespace {

enum class verdict { item, foreign, malformed };

verdict decode(const test_bytes &bytes)
{
    const auto decoded = ios_app_cbor_decode(bytes);
    if (!decoded.has_value()) {
        return verdict::malformed;
    }
    return *decoded == nullptr ? verdict::foreign : verdict::item;
}

struct decode_case {
    const char *name;
    const char *hex;
    verdict expected;
};

class CborDecode : public testing::TestWithParam<decode_case> {};

TEST_P(CborDecode, JudgesTheShape)
{
    EXPECT_EQ(decode(test_bytes_from_hex(GetParam().hex)), GetParam().expected);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Items, CborDecode, testing::Values(
    decode_case{"Nothing",                   "",                     verdict::malformed},
    decode_case{"Number",                    "00",                   verdict::item},
    decode_case{"NumberCut",                 "1a0000",               verdict::malformed},
    decode_case{"ReservedHead",              "1c",                   verdict::malformed},
    decode_case{"NumberOfUnknownLength",     "1f",                   verdict::malformed},
    decode_case{"TagOfUnknownLength",        "df00",                 verdict::malformed},
    decode_case{"BreakAlone",                "ff",                   verdict::malformed},
    decode_case{"ReservedSimpleValue",       "f800",                 verdict::malformed},
    decode_case{"Null",                      "f6",                   verdict::item},
    decode_case{"HalfFloat",                 "f93c00",               verdict::item},
    decode_case{"Bytes",                     "43010203",             verdict::item},
    decode_case{"BytesCut",                  "430102",               verdict::malformed},
    decode_case{"BytesOf2To64",              "5bffffffffffffffff",   verdict::malformed},
    decode_case{"TextOf2To32",               "7affffffff61",         verdict::malformed},
    decode_case{"BytesInChunks",             "5f4101ff",             verdict::foreign},
    decode_case{"TextInChunks",              "7f6161ff",             verdict::foreign},
    decode_case{"NoChunks",                  "5fff",                 verdict::foreign},
    decode_case{"ChunksWithoutBreak",        "5f4101",               verdict::malformed},
    decode_case{"ChunkCut",                  "5f4201",               verdict::malformed},
    decode_case{"ChunkCutBeforeABreak",      "5f4201ff",             verdict::malformed},
    decode_case{"ChunkOfAnotherKind",        "5f6161ff",             verdict::malformed},
    decode_case{"NumberAsAChunk",            "7f00ff",               verdict::malformed},
    decode_case{"ChunksInChunks",            "5f5f4101ffff",         verdict::malformed},
    decode_case{"ReservedHeadAsAChunk",      "5f5cff",               verdict::malformed},
    decode_case{"ChunksWithoutLength",       "7f",                   verdict::malformed},
    decode_case{"ChunksThenSomethingCut",    "825f4101ff1a00",       verdict::malformed},
    decode_case{"SeventeenThenSomethingCut", "8291000000000000000000000000000000000018", verdict::malformed},
    decode_case{"SomethingBehindIt",         "00ff1c",               verdict::item},
    decode_case{"EmptyMap",                  "a0",                   verdict::item},
    decode_case{"MapWithoutValue",           "a100",                 verdict::malformed},
    decode_case{"MapOf17PairsIn17Bytes",     "b10000000000000000000000000000000000", verdict::malformed},
    decode_case{"MapOf2To64",                "bbffffffffffffffff00", verdict::malformed},
    decode_case{"MapOfHalf2To64",            "bb80000000000000000000", verdict::malformed},
    decode_case{"ArrayOfUnknownLength",      "9f0001ff",             verdict::item},
    decode_case{"ArrayWithoutBreak",         "9f0001",               verdict::malformed},
    decode_case{"MapOfUnknownLength",        "bf0001ff",             verdict::item},
    decode_case{"MapOfUnknownLengthAndOdd",  "bf000102ff",           verdict::malformed},
    decode_case{"BreakBehindAnArray",     "8100ff",               verdict::item},
    decode_case{"BreakAsAnElement",          "82ff00",               verdict::malformed},
    decode_case{"FourLevels",                "8181818100",           verdict::item},
    decode_case{"FiveLevels",                "818181818100",         verdict::foreign},
    decode_case{"FiveLevelsOfUnknownLength", "9f9f9f9f9f00ffffffffff", verdict::foreign},
    decode_case{"FourTags",                  "c1c1c1c100",           verdict::item},
    decode_case{"FiveTags",                  "c1c1c1c1c100",         verdict::foreign},
    decode_case{"TagWithoutItem",            "c1",                   verdict::malformed}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

TEST(CborCounts, SixteenElementsFitAndSeventeenDoNot)
{
    const test_bytes zero{0};
    EXPECT_EQ(decode(cbor_make_array(std::vector<test_bytes>(16, zero))), verdict::item);
    EXPECT_EQ(decode(cbor_make_array(std::vector<test_bytes>(17, zero))), verdict::foreign);
    EXPECT_EQ(decode(cbor_make_map(cbor_pairs(16, {zero, zero}))), verdict::item);
    EXPECT_EQ(decode(cbor_make_map(cbor_pairs(17, {zero, zero}))), verdict::foreign);
}

TEST(CborCounts, HoldForUnknownLengthsToo)
{
    const auto open = [](std::uint8_t head, std::size_t items) {
        return bytes_joined({{head}, test_bytes(items, 0), {0xff}});
    };
    EXPECT_EQ(decode(open(0x9f, 16)), verdict::item);
    EXPECT_EQ(decode(open(0x9f, 17)), verdict::foreign);
    EXPECT_EQ(decode(open(0xbf, 32)), verdict::item);
    EXPECT_EQ(decode(open(0xbf, 34)), verdict::foreign);
}

class CborBomb : public testing::TestWithParam<const char *> {};

TEST_P(CborBomb, TakesNoMemoryForWhatIsOnlyAnnounced)
{
    const test_bytes bomb = test_bytes_from_hex(GetParam());
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    EXPECT_NE(decode(bomb), verdict::item);
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 1024) << "KiB";
}
INSTANTIATE_TEST_SUITE_P(Announced, CborBomb,
                         testing::Values("9a0800000000ff", // an array of 2^27
                                         "ba0800000000ff", // a map of 2^27
                                         "a1819a08000000", // inside a map's key
                                         "9f9a0800000000", "c19a0800000000"));

TEST(CborNesting, DeepNestingNeitherRecursesNorTakesMemory)
{
    for (const std::uint8_t head : {0x81, 0x9f, 0xa1, 0xbf, 0xc1, 0xd9, 0x5f}) {
        EXPECT_NE(decode(test_bytes(1 << 20, head)), verdict::item) << int{head};
    }
}

bool accept_all(void *calls, std::string_view key, const cbor_item_t *)
{
    static_cast<std::vector<std::string> *>(calls)->emplace_back(key);
    return key != "no";
}

struct map_result {
    bool accepted;
    std::vector<std::string> keys;
};

map_result read_map(const test_bytes &bytes, std::size_t pairs)
{
    const auto item = ios_app_cbor_decode(bytes);
    map_result result{};
    result.accepted = ios_app_cbor_read_map(item->get(), pairs, &result.keys, accept_all);
    return result;
}

test_bytes map_with_key(const test_bytes &key)
{
    return cbor_make_map({{key, {0}}});
}

TEST(CborMap, NeedsExactlyTheExpectedPairs)
{
    const test_bytes two = cbor_make_map({{cbor_make_text("a"), {0}}, {cbor_make_text("b"), {0}}});
    EXPECT_FALSE(read_map(two, 1).accepted);
    EXPECT_TRUE(read_map(two, 2).accepted);
    EXPECT_FALSE(read_map(two, 3).accepted);
    EXPECT_EQ(read_map(two, 2).keys, (std::vector<std::string>{"a", "b"}));
}

TEST(CborMap, NeedsAMap)
{
    EXPECT_FALSE(read_map(cbor_make_array({{0}, {0}}), 2).accepted);
    EXPECT_FALSE(read_map({0x00}, 0).accepted);
    EXPECT_FALSE(ios_app_cbor_read_map(nullptr, 0, nullptr, accept_all));
}

TEST(CborMap, TakesKeysOfOneToThirtyOneBytes)
{
    EXPECT_FALSE(read_map(map_with_key(cbor_make_text("")), 1).accepted);
    EXPECT_TRUE(read_map(map_with_key(cbor_make_text("k")), 1).accepted);
    EXPECT_TRUE(read_map(map_with_key(cbor_make_text(std::string(31, 'k'))), 1).accepted);
    EXPECT_FALSE(read_map(map_with_key(cbor_make_text(std::string(32, 'k'))), 1).accepted);
}

TEST(CborMap, TakesOnlyTextKeys)
{
    EXPECT_FALSE(read_map(map_with_key(cbor_make_bytes({'k'})), 1).accepted);
    EXPECT_FALSE(read_map(map_with_key({0x01}), 1).accepted);
    EXPECT_FALSE(read_map(map_with_key({0xf6}), 1).accepted);
}

TEST(CborMap, StopsAtTheFirstKeyThatTheHandlerRefuses)
{
    const test_bytes map = cbor_make_map(
        {{cbor_make_text("a"), {0}}, {cbor_make_text("no"), {0}}, {cbor_make_text("b"), {0}}});
    const map_result result = read_map(map, 3);
    EXPECT_FALSE(result.accepted);
    EXPECT_EQ(result.keys, (std::vector<std::string>{"a", "no"}));
}

bool read_bytes(const test_bytes &item, test_bytes &slot)
{
    return ios_app_cbor_read_bytes(ios_app_cbor_decode(item)->get(), slot);
}

TEST(CborBytes, TakesOneTo4096Bytes)
{
    for (const std::size_t length : {std::size_t{1}, std::size_t{4096}}) {
        test_bytes slot;
        EXPECT_TRUE(read_bytes(cbor_make_bytes(test_bytes(length, 7)), slot));
        EXPECT_EQ(slot, test_bytes(length, 7));
    }
    for (const std::size_t length : {std::size_t{0}, std::size_t{4097}}) {
        test_bytes slot;
        EXPECT_FALSE(read_bytes(cbor_make_bytes(test_bytes(length, 7)), slot));
        EXPECT_TRUE(slot.empty());
    }
}

TEST(CborBytes, NeverOverwriteAFilledSlot)
{
    test_bytes slot;
    EXPECT_TRUE(read_bytes(cbor_make_bytes({1}), slot));
    EXPECT_FALSE(read_bytes(cbor_make_bytes({2}), slot));
    EXPECT_EQ(slot.front(), 1);
}

TEST(CborBytes, AreNoText)
{
    test_bytes slot;
    EXPECT_FALSE(read_bytes(cbor_make_text("abc"), slot));
    EXPECT_EQ(ios_app_cbor_text(ios_app_cbor_decode(cbor_make_bytes({'a'}))->get()), std::nullopt);
    EXPECT_EQ(ios_app_cbor_text(ios_app_cbor_decode(cbor_make_text("a"))->get()), "a");
}

} // namespace
