#include "ios_validation/signature.h"

#include <gtest/gtest.h>
#include <openssl/objects.h>

#include <array>
#include <string>

#include "fakes/app_attest_maker.h"
#include "fakes/captured_log.h"

namespace {

using lines = std::vector<std::string>;

const test_bytes message = bytes_of("a message");

TEST(IosSignature, AcceptsASignatureOfTheKeyOverTheMessage)
{
    const evp_pkey_ptr key = ec_key_make(NID_X9_62_prime256v1);
    const captured_log log;
    EXPECT_TRUE(ios_app_signature_verify(public_key_der(key.get()), message,
                                         ecdsa_sign(key.get(), message)));
    EXPECT_EQ(log.lines(), lines{});
}

TEST(IosSignature, RefusesAnotherMessageAndAnotherKey)
{
    const evp_pkey_ptr key = ec_key_make(NID_X9_62_prime256v1);
    const evp_pkey_ptr other = ec_key_make(NID_X9_62_prime256v1);
    const test_bytes signature = ecdsa_sign(key.get(), message);
    const lines reasons{"DEBUG IAV - Verify unsuccessful", "DEBUG IAV - Invalid signature"};
    {
        const captured_log log;
        EXPECT_FALSE(
            ios_app_signature_verify(public_key_der(key.get()), bytes_of("b message"), signature));
        EXPECT_EQ(log.lines(), reasons);
    }
    const captured_log log;
    EXPECT_FALSE(ios_app_signature_verify(public_key_der(other.get()), message, signature));
    EXPECT_EQ(log.lines(), reasons);
}

TEST(IosSignature, KeysInTurnVerifyTheirOwnSignaturesOnly)
{
    const std::array keys{ec_key_make(NID_X9_62_prime256v1), ec_key_make(NID_X9_62_prime256v1),
                          ec_key_make(NID_X9_62_prime256v1)};
    for (const evp_pkey_ptr &key : keys) {
        const test_bytes der = public_key_der(key.get());
        for (const evp_pkey_ptr &signer : keys) {
            EXPECT_EQ(ios_app_signature_verify(der, message, ecdsa_sign(signer.get(), message)),
                      signer == key);
        }
    }
}

TEST(IosSignature, APointThatIsRefusedLeavesTheKeyBeforeItToNobody)
{
    const evp_pkey_ptr key = ec_key_make(NID_X9_62_prime256v1);
    const test_bytes der = public_key_der(key.get());
    const test_bytes signature = ecdsa_sign(key.get(), message);
    test_bytes off_the_curve = der;
    off_the_curve.back() ^= 1U;
    for (int turn = 0; turn < 3; ++turn) {
        EXPECT_TRUE(ios_app_signature_verify(der, message, signature));
        const captured_log log;
        EXPECT_FALSE(ios_app_signature_verify(off_the_curve, message, signature));
        EXPECT_EQ(log.lines(),
                  (lines{"DEBUG IAV - Cannot load pub key", "DEBUG IAV - Invalid signature"}));
    }
}

TEST(IosSignature, KeysOnOtherCurvesTakeTheGenericWay)
{
    const evp_pkey_ptr key = ec_key_make(NID_secp384r1);
    EXPECT_TRUE(ios_app_signature_verify(public_key_der(key.get()), message,
                                         ecdsa_sign(key.get(), message)));
    EXPECT_FALSE(ios_app_signature_verify(public_key_der(key.get()), bytes_of("x"),
                                          ecdsa_sign(key.get(), message)));
}

struct bad_key {
    const char *name;
    test_bytes (*make)();
};

test_bytes good_der()
{
    return public_key_der(ec_key_make(NID_X9_62_prime256v1).get());
}

class IosBadKey : public testing::TestWithParam<bad_key> {};

TEST_P(IosBadKey, CannotBeLoaded)
{
    const evp_pkey_ptr key = ec_key_make(NID_X9_62_prime256v1);
    const captured_log log;
    EXPECT_FALSE(
        ios_app_signature_verify(GetParam().make(), message, ecdsa_sign(key.get(), message)));
    EXPECT_EQ(log.lines(),
              (lines{"DEBUG IAV - Cannot load pub key", "DEBUG IAV - Invalid signature"}));
}

INSTANTIATE_TEST_SUITE_P(
    Keys, IosBadKey,
    testing::Values(bad_key{"Empty", [] { return test_bytes{}; }},
                    bad_key{"Garbage", [] { return bytes_of("no key at all"); }},
                    bad_key{"Cut",
                            [] {
                                test_bytes der = good_der();
                                der.pop_back();
                                return der;
                            }},
                    bad_key{"WithATail",
                            [] {
                                test_bytes der = good_der();
                                der.push_back(0);
                                return der;
                            }},
                    bad_key{"NotOnTheCurve",
                            [] {
                                test_bytes der = good_der();
                                der.back() ^= 1;
                                return der;
                            }},
                    bad_key{"ZeroPoint",
                            [] {
                                test_bytes der = good_der();
                                std::fill(der.end() - 64, der.end(), std::uint8_t{0});
                                return der;
                            }},
                    bad_key{"UnknownPointForm",
                            [] {
                                test_bytes der = good_der();
                                der[26] = 0x08;
                                return der;
                            }},
                    bad_key{"Ed25519", [] { return public_key_der(ed25519_key_make().get()); }}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST(IosSignature, AgreesWithEveryWycheproofVector)
{
    const json_ptr file = test_data_json("wycheproof/ecdsa_secp256r1_sha256_test.json");
    const auto text = [](const cJSON *object, const char *name) {
        return std::string{cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name))};
    };
    int seen = 0;
    const cJSON *group = nullptr;
    cJSON_ArrayForEach(group, cJSON_GetObjectItemCaseSensitive(file.get(), "testGroups"))
    {
        const test_bytes key = test_bytes_from_hex(text(group, "publicKeyDer"));
        const cJSON *test = nullptr;
        cJSON_ArrayForEach(test, cJSON_GetObjectItemCaseSensitive(group, "tests"))
        {
            ++seen;
            EXPECT_EQ(ios_app_signature_verify(key, test_bytes_from_hex(text(test, "msg")),
                                               test_bytes_from_hex(text(test, "sig"))),
                      text(test, "result") == "valid")
                << text(test, "comment") << ", number "
                << cJSON_GetObjectItemCaseSensitive(test, "tcId")->valueint;
        }
    }
    EXPECT_EQ(seen, 484);
}

TEST(IosSignatureSelfTest, PassesAndLeavesTheSharedKeyForTheNextCall)
{
    const evp_pkey_ptr key = ec_key_make(NID_X9_62_prime256v1);
    const captured_log log;
    EXPECT_TRUE(ios_app_signature_self_test());
    EXPECT_TRUE(ios_app_signature_verify(public_key_der(key.get()), message,
                                         ecdsa_sign(key.get(), message)));
    EXPECT_TRUE(ios_app_signature_self_test());
    EXPECT_EQ(log.lines(), lines{});
}

} // namespace
