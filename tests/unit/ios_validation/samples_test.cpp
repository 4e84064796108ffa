#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

#include "fakes/app_attest_samples.h"
#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "ios_validation/apple_root_ca.h"
#include "ios_validation/ios_app_validate.h"

/// Objects that real iPhones made, against the root that is compiled in.

namespace {

using lines = std::vector<std::string>;

struct key_store {
    test_bytes key;
    std::uint32_t counter = 0;
};

key_store &store_of(const ios_app_validator *iav)
{
    return *static_cast<key_store *>(ios_app_validator_get_user_data(iav));
}

constexpr ios_app_validator_callbacks callbacks = {
    [](ios_app_validator *iav, std::span<const std::uint8_t> der) {
        store_of(iav).key.assign(der.begin(), der.end());
        return 1U;
    },
    [](ios_app_validator *iav) { return std::optional{store_of(iav).key}; },
    [](ios_app_validator *, std::uint32_t) { return 1U; },
    [](ios_app_validator *iav) { return store_of(iav).counter; }};

class RealSample : public testing::TestWithParam<const char *> {
  protected:
    RealSample() : sample{app_attest_sample_load(GetParam())}
    {
        fake_clock_set(sample.verify_at);
        ios_app_validator_set_develop(iav.get(), 1);
    }
    ~RealSample() override
    {
        fake_clock_reset();
    }

    bool attests(const test_bytes &object, const test_bytes &hash)
    {
        return ios_app_validate_attestation(iav.get(), object, hash) != 0;
    }
    bool asserts(const test_bytes &object, const test_bytes &hash)
    {
        store.key = sample.public_key;
        return ios_app_validate_assertion(iav.get(), object, hash) != 0;
    }

    app_attest_sample sample;
    key_store store;
    ios_app_validator_ptr iav = ios_app_validator_new(sample.app_id.c_str(), &callbacks, &store);
};

/// Flips bits of the bytes, one at a time: all eight of a byte, or the one that its place picks.
enum class bits { all, one };

void each_flip(test_bytes &bytes, std::size_t from, std::size_t to, bits which,
               const std::function<void(std::size_t offset, unsigned bit)> &check)
{
    for (std::size_t offset = from; offset < to; ++offset) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            if (which == bits::one && bit != offset % 8) {
                continue;
            }
            bytes[offset] = static_cast<std::uint8_t>(bytes[offset] ^ 1U << bit);
            check(offset, bit);
            bytes[offset] = static_cast<std::uint8_t>(bytes[offset] ^ 1U << bit);
        }
    }
}

/// Where the bytes behind a key of the object begin, and how many they are.
struct field_place {
    std::size_t begin, end;
};

field_place field_of(const test_bytes &object, const std::string &key)
{
    const auto found = std::search(object.begin(), object.end(), key.begin(), key.end());
    auto at = static_cast<std::size_t>(found - object.begin()) + key.size();
    const bool wide = object[at] == 0x59;
    const std::size_t length = wide ? object[at + 1] * 256U + object[at + 2] : object[at + 1];
    at += wide ? 3 : 2;
    return {at, at + length};
}

TEST_P(RealSample, IsAcceptedInItsTime)
{
    const captured_log log;
    EXPECT_TRUE(attests(sample.attestation, sample.client_data_hash));
    EXPECT_EQ(log.lines(), lines{"TRACE IAV - Attestation success"});
    EXPECT_EQ(store.key, sample.public_key);
}

TEST_P(RealSample, NeedsTheDevelopSwitchOnlyInTheDevelopmentEnvironment)
{
    ios_app_validator_set_develop(iav.get(), 0);
    const captured_log log;
    EXPECT_EQ(attests(sample.attestation, sample.client_data_hash), !sample.development);
    EXPECT_EQ(log.has("DEBUG IAV - Aaguid mismatch"), sample.development);
}

TEST_P(RealSample, IsRefusedTodayBecauseItHasExpired)
{
    fake_clock_reset();
    const captured_log log;
    EXPECT_FALSE(attests(sample.attestation, sample.client_data_hash));
    EXPECT_EQ(log.lines(),
              (lines{"ERROR IAV - Verification: certificate has expired",
                     "DEBUG IAV - Invalid ca chain", "ERROR IAV - Attestation failed"}));
}

TEST_P(RealSample, IsRefusedForAnotherApp)
{
    iav = ios_app_validator_new((sample.app_id + "x").c_str(), &callbacks, &store);
    ios_app_validator_set_develop(iav.get(), 1);
    const captured_log log;
    EXPECT_FALSE(attests(sample.attestation, sample.client_data_hash));
    EXPECT_EQ(log.lines(), (lines{"DEBUG IAV - AppId mismatch", "ERROR IAV - Attestation failed"}));
}

TEST_P(RealSample, IsRefusedWithABitOfAnyByteOfTheClientDataHashChanged)
{
    const captured_log log;
    test_bytes hash = sample.client_data_hash;
    each_flip(hash, 0, hash.size(), bits::one, [&](std::size_t offset, unsigned bit) {
        EXPECT_FALSE(attests(sample.attestation, hash)) << offset << "." << bit;
    });
    EXPECT_EQ(static_cast<std::size_t>(log.count("OID mismatch")), hash.size());
}

TEST_P(RealSample, IsAcceptedWhateverItsReceiptHolds)
{
    test_bytes object = sample.attestation;
    const field_place receipt = field_of(object, "receipt");
    std::fill(object.begin() + static_cast<std::ptrdiff_t>(receipt.begin),
              object.begin() + static_cast<std::ptrdiff_t>(receipt.end), std::uint8_t{0});
    EXPECT_TRUE(attests(object, sample.client_data_hash));
}

TEST_P(RealSample, IsRefusedWhenItIsCutAnywhere)
{
    const captured_log log;
    for (std::size_t length = 1; length < sample.attestation.size(); ++length) {
        const std::span<const std::uint8_t> start{sample.attestation.data(), length};
        EXPECT_EQ(ios_app_validate_attestation(iav.get(), start, sample.client_data_hash), 0U);
    }
    EXPECT_EQ(static_cast<std::size_t>(log.count("DEBUG IAV - Cannot decode CBOR")),
              sample.attestation.size() - 1);
}

TEST_P(RealSample, IsNoAssertionNorTheOtherWayRound)
{
    const test_bytes hash(32);
    const captured_log log;
    EXPECT_FALSE(asserts(sample.attestation, hash));
    EXPECT_TRUE(log.has("DEBUG IAV - Cannot create assertion obj"));
    if (sample.assertion.has_value()) {
        EXPECT_FALSE(attests(sample.assertion->object, hash));
        EXPECT_TRUE(log.has("DEBUG IAV - Cannot create attestation obj"));
    }
}

INSTANTIATE_TEST_SUITE_P(Phones, RealSample,
                         testing::Values("ios-14.4", "chiff-2021", "apple-guide-2024",
                                         "insight-staging-2026"),
                         [](const auto &row) {
                             std::string name{row.param};
                             std::erase_if(name, [](char c) { return c == '-' || c == '.'; });
                             return name;
                         });

/// One of them is enough for the sweep, which verifies thousands of chains. Its authenticator data is
/// in it: that is compared by one digest, so one bit of each byte tells as much as all of them.
using SweptSample = RealSample;

TEST_P(SweptSample, IsRefusedWithABitOfAnyByteButTheReceiptsChanged)
{
    test_bytes object = sample.attestation;
    const field_place receipt = field_of(object, "receipt");
    each_flip(object, 0, object.size(), bits::one, [&](std::size_t offset, unsigned bit) {
        if (offset < receipt.begin || offset >= receipt.end) {
            EXPECT_FALSE(attests(object, sample.client_data_hash)) << offset << "." << bit;
        }
    });
    EXPECT_EQ(object, sample.attestation);
    EXPECT_EQ(store.key, test_bytes{});
}

INSTANTIATE_TEST_SUITE_P(Phones, SweptSample, testing::Values("ios-14.4"),
                         [](const auto &row) { return std::string{row.param}.substr(0, 3); });

using RealAssertion = RealSample;

TEST_P(RealAssertion, IsAcceptedByTheAttestedKey)
{
    ASSERT_TRUE(attests(sample.attestation, sample.client_data_hash));
    const captured_log log;
    EXPECT_NE(ios_app_validate_assertion(iav.get(), sample.assertion->object,
                                         sample.assertion->client_data_hash),
              0U);
    EXPECT_EQ(log.lines(), lines{"TRACE IAV - Assertion success"});
}

TEST_P(RealAssertion, IsRefusedFromItsOwnCounterOn)
{
    store.counter = sample.assertion->counter - 1;
    EXPECT_TRUE(asserts(sample.assertion->object, sample.assertion->client_data_hash));
    store.counter = sample.assertion->counter;
    const captured_log log;
    EXPECT_FALSE(asserts(sample.assertion->object, sample.assertion->client_data_hash));
    EXPECT_EQ(log.lines(), (lines{"DEBUG IAV - Invalid counter", "ERROR IAV - Assertion failed"}));
}

TEST_P(RealAssertion, IsRefusedWithAnyBitChanged)
{
    test_bytes object = sample.assertion->object;
    each_flip(object, 0, object.size(), bits::all, [&](std::size_t offset, unsigned bit) {
        EXPECT_FALSE(asserts(object, sample.assertion->client_data_hash)) << offset << "." << bit;
    });
}

TEST_P(RealAssertion, IsRefusedWithAnyBitOfTheClientDataHashChanged)
{
    test_bytes hash = sample.assertion->client_data_hash;
    each_flip(hash, 0, hash.size(), bits::all, [&](std::size_t offset, unsigned bit) {
        EXPECT_FALSE(asserts(sample.assertion->object, hash)) << offset << "." << bit;
    });
}

TEST_P(RealAssertion, IsRefusedWithAnyBitOfTheKeyPointChanged)
{
    test_bytes &key = sample.public_key;
    each_flip(key, key.size() - 64, key.size(), bits::all, [&](std::size_t offset, unsigned bit) {
        EXPECT_FALSE(asserts(sample.assertion->object, sample.assertion->client_data_hash))
            << offset << "." << bit;
    });
    EXPECT_TRUE(asserts(sample.assertion->object, sample.assertion->client_data_hash));
}

INSTANTIATE_TEST_SUITE_P(Assertions, RealAssertion, testing::Values("ios-14.4", "chiff-2021"),
                         [](const auto &row) { return std::string{row.param}.substr(0, 3); });

TEST(AppleRoot, IsTheOneThatApplePublishes)
{
    EXPECT_EQ(apple_root_ca_pem, test_data_text("app_attest/apple_app_attestation_root_ca.pem"));
    EXPECT_EQ(std::strlen(apple_root_ca_pem), 798U);
    EXPECT_EQ(std::count(apple_root_ca_pem, apple_root_ca_pem + 798, '\n'), 14);
}

TEST(CborExamples, AreAllRefused)
{
    key_store store;
    const ios_app_validator_ptr iav = ios_app_validator_new("TEAM.app", &callbacks, &store);
    const test_bytes hash(32);
    const json_ptr examples = test_data_json("cbor/appendix_a.json");
    int seen = 0;
    const cJSON *example = nullptr;
    cJSON_ArrayForEach(example, examples.get())
    {
        const test_bytes bytes = test_bytes_from_hex(
            cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(example, "hex")));
        const captured_log log;
        EXPECT_EQ(ios_app_validate_attestation(iav.get(), bytes, hash), 0U);
        EXPECT_EQ(ios_app_validate_assertion(iav.get(), bytes, hash), 0U);
        EXPECT_TRUE(log.has("ERROR IAV - Attestation failed"));
        EXPECT_TRUE(log.has("ERROR IAV - Assertion failed"));
        ++seen;
    }
    EXPECT_GT(seen, 80);
}

} // namespace
