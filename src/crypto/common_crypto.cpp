#include "crypto/common_crypto.h"

#include <algorithm>
#include <climits>

#include <openssl/err.h>

#include "crypto/openssl_error.h"
#include "handles/openssl.h"
#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "common_crypto";
constexpr std::size_t group_size = 4; // characters that carry three bytes

/// OpenSSL counts in int: a longer input is handed over cut, and the short result is a failure.
int openssl_length(std::size_t length)
{
    return static_cast<int>(std::min<std::size_t>(length, INT_MAX));
}

bool is_usable(const void *data, std::size_t length)
{
    if (data == nullptr) {
        LOG_ERROR("Passed buffer must be non null");
        return false;
    }
    if (length == 0) {
        LOG_ERROR("Length of passed buffer must be greater than zero");
        return false;
    }
    return true;
}

/// A base64 filter, for text without newlines, over `memory`; null when either is missing.
bio_ptr make_base64_chain(bio_ptr memory)
{
    bio_ptr base64{BIO_new(BIO_f_base64())};
    if (base64 == nullptr) {
        LOG_ERROR("Creating BIO base64 failed");
        return nullptr;
    }
    if (memory == nullptr) {
        LOG_ERROR("Creating BIO mem failed");
        return nullptr;
    }
    BIO_set_flags(base64.get(), BIO_FLAGS_BASE64_NO_NL);
    BIO_push(base64.get(), memory.release());
    return base64;
}

bool is_base64_character(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
}

std::size_t padding_length(std::string_view text)
{
    return text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
}

bool is_base64(std::string_view text)
{
    const std::string_view data = text.substr(0, text.size() - padding_length(text));
    return text.size() % group_size == 0 && !data.empty() &&
           std::all_of(data.begin(), data.end(), is_base64_character);
}

} // namespace

std::optional<std::string> common_crypto_base64_encode(std::span<const std::uint8_t> bytes)
{
    if (!is_usable(bytes.data(), bytes.size())) {
        return std::nullopt;
    }
    const bio_ptr base64 = make_base64_chain(bio_ptr{BIO_new(BIO_s_mem())});
    if (base64 == nullptr) {
        return std::nullopt;
    }
    const int written = BIO_write(base64.get(), bytes.data(), openssl_length(bytes.size()));
    if (written <= 0 || static_cast<std::size_t>(written) != bytes.size()) {
        LOG_ERROR("Base64 encode failed with code: %d", written);
        return std::nullopt;
    }
    const int flushed = static_cast<int>(BIO_flush(base64.get()));
    if (flushed != 1) {
        LOG_ERROR("Base64 encode flush failed with code: %d", flushed);
        return std::nullopt;
    }
    char *text = nullptr;
    const long length = BIO_get_mem_data(BIO_next(base64.get()), &text);
    return std::string{text, static_cast<std::size_t>(length)};
}

std::optional<std::vector<std::uint8_t>> common_crypto_base64_decode(std::string_view text)
{
    if (!is_usable(text.data(), text.size())) {
        return std::nullopt;
    }
    if (!is_base64(text)) {
        LOG_ERROR("Base64 decode failed with code: %d", 0);
        return std::nullopt;
    }
    const bio_ptr base64 =
        make_base64_chain(bio_ptr{BIO_new_mem_buf(text.data(), openssl_length(text.size()))});
    if (base64 == nullptr) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> bytes((text.size() / group_size + 1) * 3);
    const int read = BIO_read(base64.get(), bytes.data(), openssl_length(bytes.size()));
    const std::size_t expected = text.size() / group_size * 3 - padding_length(text);
    if (read <= 0 || static_cast<std::size_t>(read) != expected) {
        LOG_ERROR("Base64 decode failed with code: %d", read);
        return std::nullopt;
    }
    bytes.resize(expected);
    return bytes;
}

std::optional<common_sha256_digest> common_crypto_sha256(std::span<const std::uint8_t> bytes)
{
    if (!is_usable(bytes.data(), bytes.size())) {
        return std::nullopt;
    }
    ERR_clear_error();
    const auto digest = sha256(bytes);
    if (!digest.has_value()) {
        const openssl_error error = openssl_last_error();
        LOG_ERROR("%s - SHA-256 failed - 0x%lx - %s", __func__, error.code, error.text.c_str());
    }
    return digest;
}
