#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "handles/openssl.h"

/// The work in a Play Integrity token that nobody can leave out: one AES key unwrapping, one
/// AES-256-GCM decryption, one ES256 verification, by OpenSSL, with keys that are loaded already and
/// bytes that are decoded already.
class bare_token {
  public:
    bare_token(std::string_view token, const std::string &decryption_jwk,
               const std::string &verification_jwk);
    /// False when it is not what these keys made.
    [[nodiscard]] bool open();

  private:
    using bytes = std::vector<std::uint8_t>;

    bool unwrap();
    bool decrypt();
    [[nodiscard]] bool verify() const;

    bytes wrapping_key_, header_, wrapped_, iv_, ciphertext_, tag_;
    evp_pkey_ptr key_;
    std::array<std::uint8_t, 40> content_key_{};
    bytes plaintext_, message_, signature_;
};
