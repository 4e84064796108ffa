#include "android_validation/token.h"

#include <gtest/gtest.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include <array>
#include <cstdio>
#include <string>

#include "fakes/captured_log.h"
#include "fakes/integrity_token_maker.h"

namespace {

using lines = std::vector<std::string>;

constexpr char payload[] = R"({"requestDetails":{}})";
constexpr char line_start[] = "ERROR velm_attestation_engine - android_verify_assertion_locally - ";

/// The keys of an access point, and a good token that each test bends.
class AndroidToken : public testing::Test {
  protected:
    std::optional<std::string> open(std::string_view token)
    {
        log.clear();
        return android_token_open(bytes_of(token), decryption_jwk, verification_jwk);
    }
    std::optional<std::string> open(const jwe_parts &jwe)
    {
        return open(jwe.compact());
    }
    /// A good encryption of any text.
    std::optional<std::string> open_inner(std::string_view text)
    {
        return open(jwe_make({secret}, text));
    }
    /// Refused with this as the one line.
    void expect_line(const std::optional<std::string> &opened, const std::string &text)
    {
        EXPECT_EQ(opened, std::nullopt);
        EXPECT_EQ(log.lines(), lines{line_start + text});
    }
    /// Refused by the library; its own words follow.
    void expect_library_line(const std::optional<std::string> &opened, const std::string &call)
    {
        EXPECT_EQ(opened, std::nullopt);
        ASSERT_EQ(log.lines().size(), 1U);
        const std::string line = log.lines().front();
        EXPECT_TRUE(line.starts_with(line_start + call + " failed: ")) << line;
        for (const char *label : {", file: ", ", function: ", ", line: "}) {
            EXPECT_NE(line.find(label), std::string::npos) << line;
        }
    }

    static inline const evp_pkey_ptr signer = ec_key_make(NID_X9_62_prime256v1);
    static inline const evp_pkey_ptr other_signer = ec_key_make(NID_X9_62_prime256v1);
    test_bytes secret = test_bytes(32, 0x5a);
    std::string decryption_jwk = jwk_of(secret);
    std::string verification_jwk = jwk_of(signer.get());
    std::string signed_text = jws_make(signer.get(), payload);
    captured_log log;
};

TEST_F(AndroidToken, OfBothKeysGivesItsPayload)
{
    EXPECT_EQ(open(jwe_make({secret}, signed_text)), payload);
    EXPECT_EQ(log.lines(), lines{});
}

TEST_F(AndroidToken, GivesAPayloadOfAnyBytes)
{
    const std::string bytes{"\0\xff{", 3};
    EXPECT_EQ(open_inner(jws_make(signer.get(), bytes)), bytes);
}

TEST_F(AndroidToken, MayNameTypesAndKeysInItsHeaders)
{
    const std::string inner =
        jws_make(signer.get(), payload, R"({"alg":"ES256","typ":"JWT","kid":"1"})");
    EXPECT_EQ(open(jwe_make({secret, R"({"enc":"A256GCM","alg":"A256KW","cty":"JWT"})"}, inner)),
              payload);
}

TEST_F(AndroidToken, NeedsTheDecryptionKeyFirst)
{
    verification_jwk.clear();
    expect_line(open("token"), "no verification key");
    decryption_jwk.clear();
    expect_line(open("token"), "no decryption key");
}

TEST_F(AndroidToken, OfTheLongestLengthIsOpenedAndALongerOneRefused)
{
    // Base64 within base64: the payload grows by 16/9.
    std::string text(android_token_max_length * 9 / 16 - 300, 'x');
    std::string token;
    while (token.size() < android_token_max_length) {
        text.push_back('x');
        token = jwe_make({secret}, jws_make(signer.get(), text)).compact();
    }
    // Not every length can be met, so blanks in the header, which count like any character, fill up.
    std::string header = R"({"alg":"A256KW","enc":"A256GCM"})";
    text.resize(text.size() - 30);
    const auto make = [&] {
        return jwe_make({secret, header}, jws_make(signer.get(), text)).compact();
    };
    for (token = make(); token.size() < android_token_max_length; token = make()) {
        header.insert(1, " ");
    }
    ASSERT_EQ(token.size(), android_token_max_length);
    EXPECT_EQ(open(token), text);
    token.push_back('A');
    expect_line(open(token), "token too long");
    expect_line(open(std::string(1000000, 'A')), "token too long");
}

TEST_F(AndroidToken, MadeByAnotherJoseLibraryIsOpened)
{
    decryption_jwk = test_data_text("play_integrity/dec.jwk");
    verification_jwk = test_data_text("play_integrity/ver.jwk");
    EXPECT_EQ(open(test_data_text("play_integrity/token.jwe")),
              test_data_text("play_integrity/payload.json"));
    EXPECT_EQ(log.lines(), lines{});
}

// Tampering: each part of the token, at its first and its last byte.

TEST_F(AndroidToken, WithATamperedHeaderIsRefused)
{
    jwe_parts jwe = jwe_make({secret}, signed_text);
    jwe.header.insert(1, " ");
    expect_library_line(open(jwe), "cjose_jwe_decrypt");
}

struct tampered_part {
    const char *name;
    test_bytes jwe_parts::*part;
};

class TamperedToken : public AndroidToken, public testing::WithParamInterface<tampered_part> {};

TEST_P(TamperedToken, IsRefused)
{
    const jwe_parts good = jwe_make({secret}, signed_text);
    for (const bool last : {false, true}) {
        jwe_parts bad = good;
        test_bytes &bytes = bad.*GetParam().part;
        (last ? bytes.back() : bytes.front()) ^= 1;
        expect_library_line(open(bad), "cjose_jwe_decrypt");
    }
}

INSTANTIATE_TEST_SUITE_P(Parts, TamperedToken,
                         testing::Values(tampered_part{"Key", &jwe_parts::encrypted_key},
                                         tampered_part{"Iv", &jwe_parts::iv},
                                         tampered_part{"Ciphertext", &jwe_parts::ciphertext},
                                         tampered_part{"Tag", &jwe_parts::tag}),
                         [](const auto &row) { return std::string{row.param.name}; });

TEST_F(AndroidToken, WithATamperedPayloadIsRefused)
{
    const std::string other = jws_make(signer.get(), R"({"requestDetails":1})");
    const std::size_t dot = signed_text.find('.');
    const std::string payload_part =
        other.substr(dot, other.rfind('.') - dot); // both headers are alike
    const std::string text =
        signed_text.substr(0, dot) + payload_part + signed_text.substr(signed_text.rfind('.'));
    expect_library_line(open_inner(text), "cjose_jws_verify");
}

TEST_F(AndroidToken, WithATamperedSignatureHeaderIsRefused)
{
    const std::string text =
        base64url_make(R"({"alg":"ES256" })") + signed_text.substr(signed_text.find('.'));
    expect_library_line(open_inner(text), "cjose_jws_verify");
}

TEST_F(AndroidToken, WithATamperedSignatureIsRefused)
{
    for (const std::size_t from_end : {2U, 40U, 86U}) {
        std::string text = signed_text;
        char &c = text[text.size() - from_end];
        c = c == 'A' ? 'B' : 'A';
        expect_library_line(open_inner(text), "cjose_jws_verify");
    }
}

TEST_F(AndroidToken, WithASignatureOfAnotherLengthIsRefused)
{
    expect_library_line(open_inner(signed_text.substr(0, signed_text.size() - 2)),
                        "cjose_jws_verify");
    expect_library_line(open_inner(signed_text + "AA"), "cjose_jws_verify");
    expect_library_line(open_inner(signed_text + std::string(4000, 'A')), "cjose_jws_verify");
}

TEST_F(AndroidToken, WithASignatureOfZerosIsRefused)
{
    const std::string text = signed_text.substr(0, signed_text.rfind('.') + 1);
    expect_library_line(open_inner(text + base64url_make(test_bytes(64, 0))), "cjose_jws_verify");
}

TEST_F(AndroidToken, ForAnotherDecryptionKeyIsRefused)
{
    expect_library_line(open(jwe_make({test_bytes(32, 0x5b)}, signed_text)), "cjose_jwe_decrypt");
}

TEST_F(AndroidToken, SignedByAnotherKeyIsRefused)
{
    expect_library_line(open_inner(jws_make(other_signer.get(), payload)), "cjose_jws_verify");
}

TEST_F(AndroidToken, IsRefusedForItsOwnFaultAndNotForOneThatWasLeftBehind)
{
    const std::string token = jwe_make({test_bytes(32, 0x5b)}, signed_text).compact();
    EXPECT_EQ(EVP_PKEY_CTX_new_id(99999, nullptr), nullptr);
    const unsigned long stale = ERR_peek_error();
    ASSERT_NE(stale, 0U);
    expect_library_line(open(token), "cjose_jwe_decrypt");
    std::array<char, 16> code{};
    std::snprintf(code.data(), code.size(), "%08lX", stale);
    EXPECT_FALSE(log.contains(code.data())) << log.lines().front();
}

// What the token says of its own protection.

TEST_F(AndroidToken, WithoutASignatureIsRefused)
{
    const std::string text =
        base64url_make(R"({"alg":"none"})") + "." + base64url_make(payload) + ".";
    expect_line(open_inner(text), "unsupported token signature");
    expect_line(open_inner(text + "AAAA"), "unsupported token signature");
    const std::string with_signature =
        base64url_make(R"({"alg":"none"})") + signed_text.substr(signed_text.find('.'));
    expect_line(open_inner(with_signature), "unsupported token signature");
}

TEST_F(AndroidToken, SignedByHs256WithThePublicKeyIsRefused)
{
    const test_bytes der = public_key_der(signer.get());
    const test_bytes point{der.end() - 65, der.end()};
    for (const test_bytes &known : {der, point, bytes_of(verification_jwk), test_bytes(32, 0)}) {
        expect_line(open_inner(jws_make_hs256(known, payload)), "unsupported token signature");
    }
    // Nor does the word alone help.
    expect_library_line(open_inner(jws_make_hs256(der, payload, R"({"alg":"ES256"})")),
                        "cjose_jws_verify");
}

class ForeignSignature : public AndroidToken, public testing::WithParamInterface<const char *> {};

TEST_P(ForeignSignature, IsRefusedBeforeItIsVerified)
{
    EXPECT_EQ(open_inner(jws_make(signer.get(), payload, GetParam())), std::nullopt);
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_FALSE(log.contains("cjose_jws_verify"));
}

INSTANTIATE_TEST_SUITE_P(
    Headers, ForeignSignature,
    testing::Values(R"({"alg":"ES384"})", R"({"alg":"ES512"})", R"({"alg":"HS384"})",
                    R"({"alg":"HS512"})", R"({"alg":"RS256"})", R"({"alg":"PS256"})",
                    R"({"alg":"es256"})", R"({"alg":"ES256 "})", R"({"alg":["ES256"]})",
                    R"({"alg":null})", R"({"ALG":"ES256"})", "{}", "[]", "null", "\"ES256\"", "{",
                    R"({"alg":"ES256","alg":"none"})",
                    R"({"alg":"ES256","crit":["b64"],"b64":false})", R"({"alg":"ES256","crit":[]})",
                    R"({"alg":"ES256","crit":null})", R"({"alg":"ES256","crit":""})",
                    R"({"alg":"ES256","crit":{}})", R"({"alg":"ES256","crit":0})"),
    [](const auto &row) { return std::to_string(row.index); });

class ForeignEncryption : public AndroidToken, public testing::WithParamInterface<const char *> {};

TEST_P(ForeignEncryption, IsRefusedBeforeItIsDecrypted)
{
    EXPECT_EQ(open(jwe_make({secret, GetParam()}, signed_text)), std::nullopt);
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_FALSE(log.contains("cjose_jwe_decrypt"));
    EXPECT_FALSE(log.contains("cjose_jws"));
}

INSTANTIATE_TEST_SUITE_P(
    Headers, ForeignEncryption,
    testing::Values(R"({"alg":"A128KW","enc":"A256GCM"})", R"({"alg":"A192KW","enc":"A256GCM"})",
                    R"({"alg":"dir","enc":"A256GCM"})", R"({"alg":"RSA-OAEP","enc":"A256GCM"})",
                    R"({"alg":"RSA1_5","enc":"A256GCM"})", R"({"alg":"ECDH-ES","enc":"A256GCM"})",
                    R"({"alg":"A256GCMKW","enc":"A256GCM"})", R"({"alg":"none","enc":"A256GCM"})",
                    R"({"alg":"a256kw","enc":"A256GCM"})", R"({"alg":["A256KW"],"enc":"A256GCM"})",
                    R"({"enc":"A256GCM"})", R"({"alg":"A256KW"})",
                    R"({"alg":"A256KW","enc":"A128GCM"})", R"({"alg":"A256KW","enc":"A192GCM"})",
                    R"({"alg":"A256KW","enc":"A256CBC-HS512"})",
                    R"({"alg":"A256KW","enc":"A128CBC-HS256"})",
                    R"({"alg":"A256KW","enc":"a256gcm"})",
                    R"({"alg":"A256KW","enc":"A256GCM","zip":"DEF"})",
                    R"({"alg":"A256KW","enc":"A256GCM","zip":null})",
                    R"({"alg":"A256KW","enc":"A256GCM","zip":""})",
                    R"({"alg":"A256KW","enc":"A256GCM","zip":["DEF"]})",
                    R"({"alg":"A256KW","enc":"A256GCM","zip":false})",
                    R"({"alg":"A256KW","enc":"A256GCM","crit":["exp"],"exp":1})",
                    R"({"alg":"A256KW","enc":"A256GCM","alg":"dir"})", "{}", "[]", "null", "{"),
    [](const auto &row) { return std::to_string(row.index); });

TEST_F(AndroidToken, WithACompressedTextIsRefused)
{
    expect_line(
        open(jwe_make({secret, R"({"alg":"A256KW","enc":"A256GCM","zip":"DEF"})"}, signed_text)),
        "unsupported token encryption");
}

// The shape of the token.

struct shape_case {
    const char *name;
    std::string (*bend)(const std::string &token);
};

class MisshapenToken : public AndroidToken, public testing::WithParamInterface<shape_case> {};

TEST_P(MisshapenToken, IsRefusedBeforeItIsDecrypted)
{
    EXPECT_EQ(open(GetParam().bend(jwe_make({secret}, signed_text).compact())), std::nullopt);
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_FALSE(log.contains("cjose_jwe_decrypt"));
}

/// The token with its part `index` replaced.
std::string with_part(const std::string &token, int index, const std::string &text)
{
    std::size_t start = 0;
    for (int i = 0; i < index; ++i) {
        start = token.find('.', start) + 1;
    }
    const std::size_t end = token.find('.', start);
    return token.substr(0, start) + text + (end == std::string::npos ? "" : token.substr(end));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Shapes, MisshapenToken, testing::Values(
    shape_case{"Nothing", [](const std::string &) { return std::string{}; }},
    shape_case{"OneDot", [](const std::string &) { return std::string{"."}; }},
    shape_case{"FourDots", [](const std::string &) { return std::string{"...."}; }},
    shape_case{"ManyDots", [](const std::string &) { return std::string(4000, '.'); }},
    shape_case{"BinaryBytes", [](const std::string &) { return std::string(300, '\xff'); }},
    shape_case{"ThreeParts", [](const std::string &jwe) { return jwe.substr(0, jwe.rfind('.', jwe.rfind('.') - 1)); }},
    shape_case{"FourParts", [](const std::string &jwe) { return jwe.substr(0, jwe.rfind('.')); }},
    shape_case{"SixParts", [](const std::string &jwe) { return jwe + ".AAAA"; }},
    shape_case{"SixPartsTheLastEmpty", [](const std::string &jwe) { return jwe + "."; }},
    shape_case{"EmptyHeader", [](const std::string &jwe) { return with_part(jwe, 0, ""); }},
    shape_case{"EmptyKey", [](const std::string &jwe) { return with_part(jwe, 1, ""); }},
    shape_case{"EmptyIv", [](const std::string &jwe) { return with_part(jwe, 2, ""); }},
    shape_case{"EmptyCiphertext", [](const std::string &jwe) { return with_part(jwe, 3, ""); }},
    shape_case{"EmptyTag", [](const std::string &jwe) { return with_part(jwe, 4, ""); }},
    shape_case{"PaddedTag", [](const std::string &jwe) { return jwe + "=="; }},
    shape_case{"NewlineBehind", [](const std::string &jwe) { return jwe + "\n"; }},
    shape_case{"BlankBefore", [](const std::string &jwe) { return " " + jwe; }},
    shape_case{"NulBehind", [](const std::string &jwe) { return jwe + '\0'; }},
    shape_case{"WholeKeyBehindPadding", [](const std::string &jwe) { return with_part(jwe, 1, "AAAA=" + std::string(49, 'A')); }},
    shape_case{"CiphertextBehindPadding", [](const std::string &jwe) { return with_part(jwe, 3, "AAA=AAAA"); }},
    shape_case{"HeaderBehindPadding", [](const std::string &jwe) { return with_part(jwe, 0, base64url_make(R"({"alg":"A256KW","enc":"A256GCM"})") + "=AAAA"); }},
    shape_case{"JsonSerialization", [](const std::string &jwe) { return R"({"ciphertext":")" + jwe + R"("})"; }}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

/// `good` with one byte that is neither base64url nor a dot nor padding, at each place but its dots. The
/// bytes take turns.
std::vector<std::string> with_foreign_bytes(const std::string &good)
{
    const std::string_view known = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                   "0123456789-_.=";
    std::vector<std::string> made;
    int byte = 0;
    for (std::size_t i = 0; i < good.size(); ++i) {
        do {
            byte = (byte + 1) % 256;
        } while (known.find(static_cast<char>(byte)) != std::string_view::npos);
        if (good[i] != '.') {
            made.push_back(good);
            made.back()[i] = static_cast<char>(byte);
        }
    }
    return made;
}

// Nothing in the daemon looks for these: the library has to refuse them.
TEST_F(AndroidToken, WithAForeignByteAnywhereIsRefusedBeforeItIsDecrypted)
{
    for (const std::string &bad : with_foreign_bytes(jwe_make({secret}, signed_text).compact())) {
        expect_library_line(open(bad), "cjose_jwe_import");
    }
}

TEST_F(AndroidToken, WhoseSignedTextHoldsAForeignByteAnywhereIsRefusedBeforeItIsVerified)
{
    for (const std::string &bad : with_foreign_bytes(signed_text)) {
        expect_library_line(open_inner(bad), "cjose_jws_import");
    }
}

TEST_F(AndroidToken, WithOneDotMoreAnywhereIsRefusedBeforeItIsDecrypted)
{
    const std::string good = jwe_make({secret}, signed_text).compact();
    for (std::size_t i = 0; i < good.size(); ++i) {
        std::string bad = good;
        bad[i] = '.';
        EXPECT_EQ(open(bad).has_value(), good[i] == '.');
        EXPECT_FALSE(log.contains("cjose_jwe_decrypt"));
    }
}

TEST_F(AndroidToken, WhoseSignedTextHasOneDotMoreAnywhereIsRefusedBeforeItIsVerified)
{
    for (std::size_t i = 0; i < signed_text.size(); ++i) {
        std::string bad = signed_text;
        bad[i] = '.';
        EXPECT_EQ(open_inner(bad).has_value(), signed_text[i] == '.');
        EXPECT_FALSE(log.contains("cjose_jws_verify"));
    }
}

TEST_F(AndroidToken, WithPaddingAnywhereIsRefusedBeforeTheLibraryDecodesIt)
{
    const std::string good = jwe_make({secret}, signed_text).compact();
    for (std::size_t i = 0; i < good.size(); ++i) {
        std::string bad = good;
        bad[i] = '=';
        expect_line(open(bad), "invalid token parts");
    }
}

TEST_F(AndroidToken, WhoseSignedTextHoldsPaddingAnywhereIsRefusedBeforeTheLibraryDecodesIt)
{
    for (std::size_t i = 0; i < signed_text.size(); ++i) {
        std::string bad = signed_text;
        bad[i] = '=';
        expect_line(open_inner(bad), "invalid signed parts");
    }
}

TEST_F(AndroidToken, WhoseSignedTextIsDamagedNeverGivesAnotherPayload)
{
    for (std::size_t i = 0; i < 3000; ++i) {
        std::string bad = signed_text;
        const std::size_t at = i * 7919 % bad.size();
        bad[at] = static_cast<char>(bad[at] ^ (1 + i % 255));
        if (i % 5 == 0) {
            bad.erase(at, i % 7);
        }
        // The last character of the signature carries bits that stand for nothing.
        EXPECT_EQ(open_inner(bad).value_or(payload), payload) << bad;
        EXPECT_LE(log.lines().size(), 1U);
    }
}

TEST_F(AndroidToken, WithAPaddedKeyIsRefusedBeforeTheLibraryDecodesIt)
{
    for (const char *jwk :
         {R"({"kty":"oct","k":"A="})", R"({"kty":"oct","k":"A\u003dAA"})",
          R"({"k":"AAAA","kty":"oct","k":"A="})", R"({"kty":"EC","crv":"P-256","x":"A=","y":"A"})",
          R"({"kty":"RSA","n":"AAAA","e":"A="})"}) {
        decryption_jwk = jwk;
        expect_line(open("token"), "padding in a key");
    }
}

TEST_F(AndroidToken, WithAKeyWhoseNameHoldsAnEqualsSignIsOpened)
{
    decryption_jwk.insert(1, R"("kid":"a=",)");
    EXPECT_EQ(open_inner(signed_text), payload);
}

TEST_F(AndroidToken, WithAnEncryptedKeyOfFourThousandBytesIsRefused)
{
    jwe_parts jwe = jwe_make({secret}, signed_text);
    jwe.encrypted_key = test_bytes(4000, 1);
    expect_line(open(jwe), "invalid token parts");
    // One that unwraps, into more than the cipher has room for.
    jwe_wish wish{secret};
    wish.content_key_length = 3992;
    jwe = jwe_make(wish, signed_text);
    ASSERT_EQ(jwe.encrypted_key.size(), 4000U);
    expect_line(open(jwe), "invalid token parts");
}

TEST_F(AndroidToken, WithAnEncryptedKeyOfOtherThanFortyBytesIsRefused)
{
    for (const std::size_t length : {1U, 16U, 24U, 39U, 41U, 48U}) {
        jwe_parts jwe = jwe_make({secret}, signed_text);
        jwe.encrypted_key.resize(length);
        expect_line(open(jwe), "invalid token parts");
    }
    jwe_wish wish{secret};
    wish.content_key_length = 40; // wraps into 48
    expect_line(open(jwe_make(wish, signed_text)), "invalid token parts");
}

TEST_F(AndroidToken, WithAnIvOfOtherThanTwelveBytesIsRefused)
{
    for (const std::size_t length : {1U, 11U, 13U, 16U}) {
        jwe_wish wish{secret};
        wish.iv_length = length;
        expect_line(open(jwe_make(wish, signed_text)), "invalid token parts");
    }
}

TEST_F(AndroidToken, WithATagOfOtherThanSixteenBytesIsRefused)
{
    for (const std::size_t length : {1U, 4U, 8U, 12U, 15U, 17U, 32U}) {
        jwe_parts jwe = jwe_make({secret}, signed_text);
        jwe.tag.resize(length);
        expect_line(open(jwe), "invalid token parts");
    }
}

TEST_F(AndroidToken, WhoseTextIsNotSignedIsRefused)
{
    expect_library_line(open_inner(payload), "cjose_jws_import");
    expect_library_line(open_inner("a.b"), "cjose_jws_import");
    expect_library_line(open_inner(std::string(300, '\0')), "cjose_jws_import");
    expect_library_line(open_inner(signed_text + ".AAAA"), "cjose_jws_import");
}

TEST_F(AndroidToken, WhoseSignedTextIsPaddedOrHasAnEmptyPartIsRefused)
{
    expect_line(open_inner(signed_text + "=="), "invalid signed parts");
    expect_line(open_inner(jws_make(signer.get(), "")), "invalid signed parts");
    expect_line(open_inner(signed_text.substr(0, signed_text.rfind('.') + 1)),
                "invalid signed parts");
}

// The keys.

TEST_F(AndroidToken, IsOpenedByTheKeysOfThisCallWhateverKeysWereGoodBefore)
{
    const std::string token = jwe_make({secret}, signed_text).compact();
    const std::string good_decryption = decryption_jwk;
    const std::string good_verification = verification_jwk;
    for (int turn = 0; turn < 2; ++turn) {
        EXPECT_EQ(open(token), payload);
        decryption_jwk = jwk_of(test_bytes(32, 0x5b));
        expect_library_line(open(token), "cjose_jwe_decrypt");
        decryption_jwk = "{}";
        expect_library_line(open(token), "cjose_jwk_import");
        decryption_jwk = good_decryption;
        verification_jwk = jwk_of(other_signer.get());
        expect_library_line(open(token), "cjose_jws_verify");
        verification_jwk = decryption_jwk;
        expect_line(open(token), "verification key is no EC key on P-256");
        verification_jwk = good_verification;
    }
    EXPECT_EQ(open(token), payload);
}

TEST_F(AndroidToken, WithADecryptionKeyThatIsNoJwkIsRefused)
{
    for (const char *text : {"{}", "[]", "5", "{", R"({"kty":"oct"})", R"({"kty":"oct","k":5})"}) {
        decryption_jwk = text;
        expect_library_line(open("token"), "cjose_jwk_import");
    }
}

TEST_F(AndroidToken, WithADecryptionKeyOfAnotherKindOrLengthIsRefusedBeforeItIsUsed)
{
    for (const std::string &jwk :
         {jwk_of(test_bytes(16, 1)), jwk_of(test_bytes(31, 1)), jwk_of(test_bytes(33, 1)),
          jwk_of(test_bytes(64, 1)), jwk_of(signer.get())}) {
        decryption_jwk = jwk;
        expect_line(open(jwe_make({secret}, signed_text)),
                    "decryption key is no oct key of 32 bytes");
    }
}

TEST_F(AndroidToken, WithAVerificationKeyThatIsNoJwkIsRefused)
{
    verification_jwk = R"({"kty":"EC","crv":"P-256"})";
    expect_library_line(open_inner(signed_text), "cjose_jwk_import");
}

TEST_F(AndroidToken, WithAVerificationKeyOfAnotherKindOrCurveIsRefusedBeforeItIsUsed)
{
    const evp_pkey_ptr p384 = ec_key_make(NID_secp384r1);
    for (const std::string &jwk : {jwk_of(test_bytes(32, 1)), jwk_of(p384.get(), "P-384")}) {
        verification_jwk = jwk;
        expect_line(open_inner(signed_text), "verification key is no EC key on P-256");
    }
}

TEST_F(AndroidToken, WithAVerificationKeyOffItsCurveIsRefused)
{
    verification_jwk = R"({"kty":"EC","crv":"P-256","x":")" + base64url_make(test_bytes(32, 1)) +
                       R"(","y":")" + base64url_make(test_bytes(32, 2)) + R"("})";
    EXPECT_EQ(open_inner(signed_text), std::nullopt);
    EXPECT_EQ(log.lines().size(), 1U);
}

// Vectors made by others: one uses our two algorithms, and its text is no signed one.

TEST_F(AndroidToken, OfThePublishedVectorsOneIsDecryptedAndNoneAccepted)
{
    const json_ptr file = test_data_json("wycheproof/json_web_encryption_test.json");
    int vectors = 0;
    int decrypted = 0;
    const cJSON *group = nullptr;
    cJSON_ArrayForEach(group, cJSON_GetObjectItemCaseSensitive(file.get(), "testGroups"))
    {
        const json_text key{
            cJSON_PrintUnformatted(cJSON_GetObjectItemCaseSensitive(group, "private"))};
        decryption_jwk = key.get();
        const cJSON *test = nullptr;
        cJSON_ArrayForEach(test, cJSON_GetObjectItemCaseSensitive(group, "tests"))
        {
            const cJSON *jwe = cJSON_GetObjectItemCaseSensitive(test, "jwe");
            const int id = cJSON_GetObjectItemCaseSensitive(test, "tcId")->valueint;
            EXPECT_EQ(open(cJSON_IsString(jwe) ? jwe->valuestring : ""), std::nullopt) << id;
            EXPECT_EQ(log.lines().size(), 1U) << id;
            EXPECT_EQ(log.contains("cjose_jws_import failed: "), id == 29) << id;
            ++vectors;
            decrypted += log.contains("cjose_jws_import failed: ") ? 1 : 0;
        }
    }
    EXPECT_EQ(vectors, cJSON_GetObjectItemCaseSensitive(file.get(), "numberOfTests")->valueint);
    EXPECT_EQ(decrypted, 1);
}

} // namespace
