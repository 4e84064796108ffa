#include "common/bare_token.h"

#include <memory>

#include "handles/cjose.h"
#include "handles/cjson.h"

namespace {

using bytes = std::vector<std::uint8_t>;

bytes decoded(std::string_view text)
{
    std::uint8_t *made = nullptr;
    std::size_t length = 0;
    cjose_err error{};
    if (!cjose_base64url_decode(text.data(), text.size(), &made, &length, &error)) {
        return {};
    }
    const cjose_bytes owned{made};
    return {made, made + length};
}

bytes member_decoded(const std::string &jwk, const char *name)
{
    const json_ptr object{cJSON_Parse(jwk.c_str())};
    const char *text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object.get(), name));
    return text != nullptr ? decoded(text) : bytes{};
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
    bytes der = {0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01, 0x06,
                 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07, 0x03, 0x42, 0x00, 0x04};
    for (const char *coordinate : {"x", "y"}) {
        const bytes digits = member_decoded(jwk, coordinate);
        der.insert(der.end(), digits.begin(), digits.end());
    }
    const std::uint8_t *at = der.data();
    return evp_pkey_ptr{d2i_PUBKEY(nullptr, &at, static_cast<long>(der.size()))};
}

void der_integer_append(bytes &der, const std::uint8_t *number)
{
    bytes digits(number, number + 32);
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
bytes signature_der(const bytes &raw)
{
    bytes numbers;
    der_integer_append(numbers, raw.data());
    der_integer_append(numbers, raw.data() + 32);
    bytes der{0x30, static_cast<std::uint8_t>(numbers.size())};
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

} // namespace

bare_token::bare_token(std::string_view token, const std::string &decryption_jwk,
                       const std::string &verification_jwk)
    : wrapping_key_{member_decoded(decryption_jwk, "k")}, key_{p256_key(verification_jwk)}
{
    const auto parts = split(token);
    if (parts.size() != 5) {
        return;
    }
    header_ = bytes(parts[0].begin(), parts[0].end());
    wrapped_ = decoded(parts[1]);
    iv_ = decoded(parts[2]);
    ciphertext_ = decoded(parts[3]);
    tag_ = decoded(parts[4]);
    plaintext_.resize(ciphertext_.size());
    if (unwrap() && decrypt()) {
        const std::string_view text{reinterpret_cast<const char *>(plaintext_.data()),
                                    plaintext_.size()};
        const std::size_t dot = text.rfind('.');
        if (dot == std::string_view::npos) {
            return;
        }
        message_ = bytes(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(dot));
        signature_ = signature_der(decoded(text.substr(dot + 1)));
    }
}

bool bare_token::open()
{
    return unwrap() && decrypt() && verify();
}

bool bare_token::unwrap()
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

bool bare_token::decrypt()
{
    const cipher_ctx_ptr context{EVP_CIPHER_CTX_new()};
    int length = 0;
    return EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, content_key_.data(),
                              iv_.data()) == 1 &&
           EVP_DecryptUpdate(context.get(), nullptr, &length, header_.data(),
                             static_cast<int>(header_.size())) == 1 &&
           EVP_DecryptUpdate(context.get(), plaintext_.data(), &length, ciphertext_.data(),
                             static_cast<int>(ciphertext_.size())) == 1 &&
           EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(tag_.size()),
                               tag_.data()) == 1 &&
           EVP_DecryptFinal_ex(context.get(), plaintext_.data(), &length) == 1;
}

bool bare_token::verify() const
{
    const evp_md_ctx_ptr context{EVP_MD_CTX_new()};
    return EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key_.get()) == 1 &&
           EVP_DigestVerify(context.get(), signature_.data(), signature_.size(), message_.data(),
                            message_.size()) == 1;
}
