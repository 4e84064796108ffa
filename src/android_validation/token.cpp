#include "android_validation/token.h"

#include <jansson.h>
#include <openssl/err.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>
#include <utility>

#include "handles/cjose.h"
#include "handles/cjson.h"
#include "logger/common_logger.h"
#include "story/reason.h"
#include "text/or_empty.h"

namespace {

constexpr char log_category[] = "velm_attestation_engine";

/// The worker that a token is opened for: its name begins every line, whichever step writes it.
constexpr char worker[] = "android_verify_assertion_locally";

constexpr std::size_t key_bits = 256;

/// Reading a JWK takes a quarter of the time that its token takes, so a key that was good is kept
/// for as long as its text stays the same.
struct imported_key {
    std::string text;
    cjose_jwk_ptr key;
};

struct module_state {
    imported_key decryption;
    imported_key verification;
};
module_state state;

// Characters of base64url, which tell the length exactly: 54 are 40 bytes, neither 39 nor 41.
constexpr std::size_t encrypted_key_characters = 54; // 40 bytes: a 32-byte key, wrapped
constexpr std::size_t iv_characters = 16;            // 12 bytes
constexpr std::size_t tag_characters = 22;           // 16 bytes

/// The parts between the dots; nothing unless there are exactly as many as wanted, and none empty. To
/// be asked when the library has imported the text: it has decoded each part then, and refuses foreign
/// characters. So the length of a part tells how many bytes it has.
template <std::size_t Count>
std::optional<std::array<std::string_view, Count>> parts_of(std::string_view compact)
{
    std::array<std::string_view, Count> parts;
    for (std::size_t i = 0; i < Count; ++i) {
        const std::size_t dot = compact.find('.');
        const bool is_last = i + 1 == Count;
        parts[i] = compact.substr(0, dot);
        if (is_last != (dot == std::string_view::npos) || parts[i].empty()) {
            return std::nullopt;
        }
        compact.remove_prefix(is_last ? compact.size() : dot + 1);
    }
    return parts;
}

/// The members of a JWK that the library decodes.
constexpr std::string_view encoded_members[] = {"k", "x", "y",  "d",  "n", "e",
                                                "p", "q", "dp", "dq", "qi"};

/// Never right in JOSE, and the library ends the process when one character more than whole groups
/// of four comes before a "=": nothing padded may reach its decoder.
bool has_padding(std::string_view text)
{
    return text.find('=') != std::string_view::npos;
}

bool jwk_has_padding(const std::string &text)
{
    const json_ptr jwk{cJSON_Parse(text.c_str())};
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, jwk.get())
    {
        const bool is_encoded = item->string != nullptr && cJSON_IsString(item) &&
                                std::find(std::begin(encoded_members), std::end(encoded_members),
                                          item->string) != std::end(encoded_members);
        if (is_encoded && has_padding(item->valuestring)) {
            return true;
        }
    }
    return false;
}

cjose_jwk_ptr key_import(const std::string &text)
{
    if (jwk_has_padding(text)) {
        LOG_ERROR("%s - padding in a key", worker);
        return nullptr;
    }
    cjose_err error{}; // cjose leaves it alone on some failures
    cjose_jwk_ptr key{cjose_jwk_import(text.data(), text.size(), &error)};
    if (key == nullptr) {
        LOG_ERROR("%s - cjose_jwk_import failed: %s, file: %s, function: %s, line: %ld", worker,
                  text_or_empty(error.message), text_or_empty(error.file),
                  text_or_empty(error.function), static_cast<long>(error.line));
    }
    return key;
}

using key_importer = cjose_jwk_ptr (*)(const std::string &text);

/// The key of this text, borrowed; null, and a line in the log, when it is none.
const cjose_jwk_t *key_load(imported_key &kept, const std::string &text, key_importer import)
{
    if (kept.key == nullptr || kept.text != text) {
        cjose_jwk_ptr key = import(text);
        if (key == nullptr) {
            return nullptr;
        }
        kept = {text, std::move(key)};
    }
    return kept.key.get();
}

cjose_jwk_ptr decryption_key_import(const std::string &text)
{
    cjose_jwk_ptr key = key_import(text);
    cjose_err error{};
    if (key != nullptr && (cjose_jwk_get_kty(key.get(), &error) != CJOSE_JWK_KTY_OCT ||
                           cjose_jwk_get_keysize(key.get(), &error) != key_bits)) {
        LOG_ERROR("%s - decryption key is no oct key of 32 bytes", worker);
        return nullptr;
    }
    return key;
}

cjose_jwk_ptr verification_key_import(const std::string &text)
{
    cjose_jwk_ptr key = key_import(text);
    cjose_err error{};
    if (key != nullptr && (cjose_jwk_get_kty(key.get(), &error) != CJOSE_JWK_KTY_EC ||
                           cjose_jwk_EC_get_curve(key.get(), &error) != CJOSE_JWK_EC_P_256)) {
        LOG_ERROR("%s - verification key is no EC key on P-256", worker);
        return nullptr;
    }
    return key;
}

/// Copied whole: from a pair of pointers to bytes it would be one by one.
std::string text_of(const std::uint8_t *bytes, std::size_t length)
{
    return {reinterpret_cast<const char *>(bytes), length};
}

bool header_says(cjose_header_t *header, const char *name, std::string_view wanted)
{
    cjose_err error{};
    const char *value = cjose_header_get(header, name, &error);
    return value != nullptr && value == wanted;
}

/// Whatever the value: the library's own look-up takes some kinds for absent.
bool header_has(const cjose_header_t *header, const char *name)
{
    return json_object_get(header, name) != nullptr;
}

/// Compression would let a small token grow without bound, and "crit" names rules that the library
/// does not know.
bool encryption_is_ours(cjose_jwe_t *jwe)
{
    cjose_header_t *header = cjose_jwe_get_protected(jwe);
    if (!header_says(header, CJOSE_HDR_ALG, "A256KW") ||
        !header_says(header, CJOSE_HDR_ENC, "A256GCM") || header_has(header, "zip") ||
        header_has(header, "crit")) {
        LOG_ERROR("%s - unsupported token encryption", worker);
        story_reason_set("its integrity token is encrypted in another way than Play does");
        return false;
    }
    return true;
}

/// The library trusts these lengths: it would unwrap a longer key beyond its buffer.
bool lengths_are_right(std::string_view token)
{
    const auto parts = parts_of<5>(token);
    if (!parts.has_value() || (*parts)[1].size() != encrypted_key_characters ||
        (*parts)[2].size() != iv_characters || (*parts)[4].size() != tag_characters) {
        LOG_ERROR("%s - invalid token parts", worker);
        story_reason_set("it is no integrity token");
        return false;
    }
    return true;
}

cjose_jwe_ptr token_import(std::string_view token)
{
    if (has_padding(token)) {
        LOG_ERROR("%s - invalid token parts", worker);
        story_reason_set("it is no integrity token");
        return nullptr;
    }
    cjose_err error{};
    cjose_jwe_ptr jwe{cjose_jwe_import(token.data(), token.size(), &error)};
    if (jwe == nullptr) {
        LOG_ERROR("%s - cjose_jwe_import failed: %s, file: %s, function: %s, line: %ld", worker,
                  text_or_empty(error.message), text_or_empty(error.file),
                  text_or_empty(error.function), static_cast<long>(error.line));
        return nullptr;
    }
    if (!encryption_is_ours(jwe.get()) || !lengths_are_right(token)) {
        return nullptr;
    }
    return jwe;
}

std::optional<std::string> decrypt(std::string_view token, const std::string &key_text)
{
    const cjose_jwk_t *key = key_load(state.decryption, key_text, decryption_key_import);
    const cjose_jwe_ptr jwe = key != nullptr ? token_import(token) : nullptr;
    if (jwe == nullptr) {
        return std::nullopt;
    }
    cjose_err error{};
    std::size_t length = 0;
    const cjose_bytes text{cjose_jwe_decrypt(jwe.get(), key, &length, &error)};
    if (text == nullptr) {
        LOG_ERROR("%s - cjose_jwe_decrypt failed: %s, file: %s, function: %s, line: %ld", worker,
                  text_or_empty(error.message), text_or_empty(error.file),
                  text_or_empty(error.function), static_cast<long>(error.line));
        story_reason_set("the decryption key does not open its integrity token");
        return std::nullopt;
    }
    return text_of(text.get(), length);
}

cjose_jws_ptr signed_text_import(const std::string &text)
{
    if (has_padding(text)) {
        LOG_ERROR("%s - invalid signed parts", worker);
        story_reason_set("it is no integrity token");
        return nullptr;
    }
    cjose_err error{};
    cjose_jws_ptr jws{cjose_jws_import(text.data(), text.size(), &error)};
    if (jws == nullptr) {
        LOG_ERROR("%s - cjose_jws_import failed: %s, file: %s, function: %s, line: %ld", worker,
                  text_or_empty(error.message), text_or_empty(error.file),
                  text_or_empty(error.function), static_cast<long>(error.line));
        return nullptr;
    }
    // Whoever made the text chose the algorithm in its header; ours is fixed.
    cjose_header_t *header = cjose_jws_get_protected(jws.get());
    if (!header_says(header, CJOSE_HDR_ALG, "ES256") || header_has(header, "crit")) {
        LOG_ERROR("%s - unsupported token signature", worker);
        story_reason_set("its integrity token is signed in another way than Play does");
        return nullptr;
    }
    if (!parts_of<3>(text).has_value()) {
        LOG_ERROR("%s - invalid signed parts", worker);
        story_reason_set("it is no integrity token");
        return nullptr;
    }
    return jws;
}

/// The payload, read only once the signature has proved good.
std::optional<std::string> verified_payload(const std::string &text, const std::string &key_text)
{
    const cjose_jws_ptr jws = signed_text_import(text);
    const cjose_jwk_t *key =
        jws != nullptr ? key_load(state.verification, key_text, verification_key_import) : nullptr;
    if (key == nullptr) {
        return std::nullopt;
    }
    cjose_err error{};
    if (!cjose_jws_verify(jws.get(), key, &error)) {
        LOG_ERROR("%s - cjose_jws_verify failed: %s, file: %s, function: %s, line: %ld", worker,
                  text_or_empty(error.message), text_or_empty(error.file),
                  text_or_empty(error.function), static_cast<long>(error.line));
        story_reason_set("the verification key does not fit its integrity token");
        return std::nullopt;
    }
    error = {};
    std::uint8_t *payload = nullptr; // the JWS owns it
    std::size_t length = 0;
    if (!cjose_jws_get_plaintext(jws.get(), &payload, &length, &error)) {
        LOG_ERROR("%s - cjose_jws_get_plaintext failed: %s, file: %s, function: %s, line: %ld",
                  worker, text_or_empty(error.message), text_or_empty(error.file),
                  text_or_empty(error.function), static_cast<long>(error.line));
        return std::nullopt;
    }
    return text_of(payload, length);
}

} // namespace

bool android_token_decryption_key_is_good(const std::string &text)
{
    return decryption_key_import(text) != nullptr;
}

bool android_token_verification_key_is_good(const std::string &text)
{
    return verification_key_import(text) != nullptr;
}

std::optional<std::string> android_token_open(std::span<const std::uint8_t> token,
                                              const std::string &decryption_key,
                                              const std::string &verification_key)
{
    if (decryption_key.empty()) {
        LOG_ERROR("%s - no decryption key", worker);
        story_reason_set("there is no key that opens integrity tokens");
        return std::nullopt;
    }
    if (verification_key.empty()) {
        LOG_ERROR("%s - no verification key", worker);
        story_reason_set("there is no key that verifies integrity tokens");
        return std::nullopt;
    }
    if (token.size() > android_token_max_length) {
        LOG_ERROR("%s - token too long", worker);
        story_reason_set("its integrity token is too long");
        return std::nullopt;
    }
    ERR_clear_error(); // cjose would tell what others left as the cause
    const auto text =
        decrypt({reinterpret_cast<const char *>(token.data()), token.size()}, decryption_key);
    return text.has_value() ? verified_payload(*text, verification_key) : std::nullopt;
}
