#pragma once

#include <cjson/cJSON.h>
#include <evhtp/evhtp.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

/// What the request modules take out of a request, and how long each text may be. Internal to them.

/// Limits in bytes, inclusive.
inline constexpr std::size_t request_id_limit = 1024; // device id, user name, password, challenge
inline constexpr std::size_t request_word_limit = 64; // device type, BSSID, model, OS version
inline constexpr std::size_t request_name_limit = 1024;
inline constexpr std::size_t request_push_token_limit = 2048;
inline constexpr std::size_t request_header_limit = 16384; // an assertion or attestation

/// True when the text is present, not empty and at most `limit` bytes long.
[[nodiscard]] bool request_text_fits(const char *text, std::size_t limit);

/// The header's text, borrowed from the request; null when it is missing. Names ignore case.
[[nodiscard]] const char *request_header(const evhtp_request_t *request, const char *name);

/// The path as it was sent, without the query, borrowed from the request; null without one.
[[nodiscard]] const char *request_path(const evhtp_request_t *request);

/// Of a body, its member "auth"; null without one.
[[nodiscard]] const cJSON *request_auth(const cJSON *body);

/// The exact bytes of the body, empty without one; nothing when they cannot be copied. `caller` and
/// `object` are what the fatal line of exhausted memory names.
[[nodiscard]] std::optional<std::string> request_body_copy(const evhtp_request_t *request,
                                                           const char *caller, const char *object);

/// The same for a caller that cannot go on without: bytes that cannot be copied are fatal.
[[nodiscard]] std::string request_body_require(const evhtp_request_t *request, const char *caller,
                                               const char *object);

/// The peer's IPv4 address; nothing for another family.
[[nodiscard]] std::optional<in_addr> request_peer_address(const evhtp_request_t *request);

/// Made for a line of the log or a report, not kept; nothing without an address.
[[nodiscard]] std::optional<std::string>
request_address_text(const std::optional<in_addr> &address);

/// The same memory as bytes, for the crypto functions.
[[nodiscard]] std::span<const std::uint8_t> request_bytes(std::string_view text);
