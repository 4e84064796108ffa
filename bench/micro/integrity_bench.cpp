#include <benchmark/benchmark.h>

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "common/daemon_engine.h"
#include "fakes/app_attest_samples.h"
#include "fakes/fake_clock.h"
#include "handles/cjose.h"
#include "handles/cjson.h"
#include "handles/openssl.h"

/// A Play Integrity token, opened and judged on the device, beside the work in it that nobody can
/// leave out: one AES key unwrapping, one AES-256-GCM decryption, one ES256 verification, by OpenSSL
/// with keys that are loaded already and bytes that are decoded already.

namespace {

struct sample {
    daemon_engine_wish keys;
    test_bytes token;
    token_binding binding;
};

sample sample_load()
{
    sample made;
    made.keys.decryption_jwk = test_data_text("play_integrity/dec.jwk");
    made.keys.verification_jwk = test_data_text("play_integrity/ver.jwk");
    std::string token = test_data_text("play_integrity/token.jwe");
    token.erase(token.find_last_not_of("\r\n") + 1);
    made.token.assign(token.begin(), token.end());
    made.binding = token_binding_read(made.token, made.keys).value_or(token_binding{});
    made.keys.android_package_name = made.binding.package_name;
    return made;
}

test_bytes decoded(std::string_view text)
{
    std::uint8_t *bytes = nullptr;
    std::size_t length = 0;
    cjose_err error{};
    if (!cjose_base64url_decode(text.data(), text.size(), &bytes, &length, &error)) {
        return {};
    }
    const cjose_bytes owned{bytes};
    return {bytes, bytes + length};
}

test_bytes member_decoded(const std::string &jwk, const char *name)
{
    const json_ptr object{cJSON_Parse(jwk.c_str())};
    const char *text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object.get(), name));
    return text != nullptr ? decoded(text) : test_bytes{};
}

std::vector<std::string_view> split(std::string_view compact)
{
    std::vector<std::string_view> parts;
    for (std::size_t dot = compact.find('.'); dot != std::string_view::npos;
         dot = compact.find('.')) {
        parts.push_back(compact.substr(0, dot));
        compact.remove_prefix(dot + 1);
    }
    parts.push_back(compact);
    return parts;
}

evp_pkey_ptr p256_key(const std::string &jwk)
{
    test_bytes der = {0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2a, 0x86, 0x48,
                      0xce, 0x3d, 0x02, 0x01, 0x06, 0x08, 0x2a, 0x86, 0x48,
                      0xce, 0x3d, 0x03, 0x01, 0x07, 0x03, 0x42, 0x00, 0x04};
    for (const char *coordinate : {"x", "y"}) {
        const test_bytes bytes = member_decoded(jwk, coordinate);
        der.insert(der.end(), bytes.begin(), bytes.end());
    }
    const std::uint8_t *at = der.data();
    return evp_pkey_ptr{d2i_PUBKEY(nullptr, &at, static_cast<long>(der.size()))};
}

void der_integer_append(test_bytes &der, const std::uint8_t *number)
{
    test_bytes digits(number, number + 32);
    while (digits.size() > 1 && digits[0] == 0 && digits[1] < 0x80) {
        digits.erase(digits.begin());
    }
    if (digits[0] >= 0x80) {
        digits.insert(digits.begin(), 0);
    }
    der.push_back(0x02);
    der.push_back(static_cast<std::uint8_t>(digits.size()));
    der.insert(der.end(), digits.begin(), digits.end());
}

/// ECDSA-Sig-Value out of the 64 bytes that JOSE has.
test_bytes signature_der(const test_bytes &raw)
{
    test_bytes numbers;
    der_integer_append(numbers, raw.data());
    der_integer_append(numbers, raw.data() + 32);
    test_bytes der{0x30, static_cast<std::uint8_t>(numbers.size())};
    der.insert(der.end(), numbers.begin(), numbers.end());
    return der;
}

struct cipher_ctx_deleter {
    void operator()(EVP_CIPHER_CTX *context) const noexcept
    {
        EVP_CIPHER_CTX_free(context);
    }
};
using cipher_ctx_ptr = std::unique_ptr<EVP_CIPHER_CTX, cipher_ctx_deleter>;

/// The parts of a token as OpenSSL takes them.
class bare_token {
  public:
    explicit bare_token(const sample &from)
        : wrapping_key_{member_decoded(from.keys.decryption_jwk, "k")},
          key_{p256_key(from.keys.verification_jwk)}
    {
        const std::string_view token{reinterpret_cast<const char *>(from.token.data()),
                                     from.token.size()};
        const auto parts = split(token);
        header_ = test_bytes(parts[0].begin(), parts[0].end());
        wrapped_ = decoded(parts[1]);
        iv_ = decoded(parts[2]);
        ciphertext_ = decoded(parts[3]);
        tag_ = decoded(parts[4]);
        plaintext_.resize(ciphertext_.size());
        if (unwrap() && decrypt()) {
            const std::string_view text{reinterpret_cast<const char *>(plaintext_.data()),
                                        plaintext_.size()};
            const std::size_t dot = text.rfind('.');
            message_ = test_bytes(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(dot));
            signature_ = signature_der(decoded(text.substr(dot + 1)));
        }
    }
    bool open()
    {
        return unwrap() && decrypt() && verify();
    }

  private:
    bool unwrap()
    {
        const cipher_ctx_ptr context{EVP_CIPHER_CTX_new()};
        EVP_CIPHER_CTX_set_flags(context.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
        int length = 0;
        return EVP_DecryptInit_ex(context.get(), EVP_aes_256_wrap(), nullptr, wrapping_key_.data(),
                                  nullptr) == 1 &&
               EVP_DecryptUpdate(context.get(), content_key_.data(), &length, wrapped_.data(),
                                 static_cast<int>(wrapped_.size())) == 1 &&
               length == 32;
    }
    bool decrypt()
    {
        const cipher_ctx_ptr context{EVP_CIPHER_CTX_new()};
        int length = 0;
        return EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, content_key_.data(),
                                  iv_.data()) == 1 &&
               EVP_DecryptUpdate(context.get(), nullptr, &length, header_.data(),
                                 static_cast<int>(header_.size())) == 1 &&
               EVP_DecryptUpdate(context.get(), plaintext_.data(), &length, ciphertext_.data(),
                                 static_cast<int>(ciphertext_.size())) == 1 &&
               EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG,
                                   static_cast<int>(tag_.size()), tag_.data()) == 1 &&
               EVP_DecryptFinal_ex(context.get(), plaintext_.data(), &length) == 1;
    }
    [[nodiscard]] bool verify() const
    {
        const evp_md_ctx_ptr context{EVP_MD_CTX_new()};
        return EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key_.get()) ==
                   1 &&
               EVP_DigestVerify(context.get(), signature_.data(), signature_.size(),
                                message_.data(), message_.size()) == 1;
    }

    test_bytes wrapping_key_, header_, wrapped_, iv_, ciphertext_, tag_;
    evp_pkey_ptr key_;
    std::array<std::uint8_t, 40> content_key_{};
    test_bytes plaintext_, message_, signature_;
};

void integrity_velmd(benchmark::State &state)
{
    const sample token = sample_load();
    if (!daemon_engine_start(token.keys)) {
        state.SkipWithError("no engine");
    }
    fake_clock_set(token.binding.timestamp_s);
    for (auto _ : state) {
        if (!daemon_engine_judge_token(token.token, token.binding.message_digest)) {
            state.SkipWithError("refused");
            break;
        }
    }
    fake_clock_reset();
}

void integrity_bare(benchmark::State &state)
{
    bare_token token{sample_load()};
    for (auto _ : state) {
        if (!token.open()) {
            state.SkipWithError("refused");
            break;
        }
    }
}

BENCHMARK(integrity_velmd)->Name("integrity/velmd");
BENCHMARK(integrity_bare)->Name("integrity/bare");

} // namespace
