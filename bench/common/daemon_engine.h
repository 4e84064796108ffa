#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// The daemon's attestation engine in a process of our own, called as a request calls it. One at a
/// time.

/// What an engine is set up with; what a verification does not need stays empty.
struct daemon_engine_wish {
    std::string ios_app_id;
    std::string ios_root_pem; // empty: Apple's
    std::string android_package_name;
    std::string decryption_jwk;
    std::string verification_jwk;
};

/// Configures the engine; false when the engine did not take its keys. The logger ends up as the
/// daemon's defaults have it.
[[nodiscard]] bool daemon_engine_start(const daemon_engine_wish &wish);

/// The pairing that each look-up of the engine finds from now on; only the key matters to it. It
/// stands for the record in nvram, whose reading is no part of a verification.
void daemon_engine_pair(std::span<const std::uint8_t> public_key_der);

[[nodiscard]] bool daemon_engine_attest(std::span<const std::uint8_t> attestation,
                                        std::span<const std::uint8_t> client_data_hash);
[[nodiscard]] bool daemon_engine_assert(std::span<const std::uint8_t> assertion,
                                        std::span<const std::uint8_t> client_data_hash);
/// On this device; queued and reported through the event loop.
[[nodiscard]] bool daemon_engine_judge_token(std::span<const std::uint8_t> token,
                                             std::span<const std::uint8_t> message_digest);

/// What a token is bound to, out of its own payload: it is opened with the same keys. Nothing when
/// it cannot be opened or says none of these; the log has the reason of the first.
struct token_binding {
    std::string package_name;
    std::vector<std::uint8_t> message_digest; // its nonce, or its request hash, decoded
    std::int64_t timestamp_s = 0;
};
[[nodiscard]] std::optional<token_binding> token_binding_read(std::span<const std::uint8_t> token,
                                                              const daemon_engine_wish &keys);

/// The lines that the daemon logs while `action` runs, DEBUG and above.
[[nodiscard]] std::vector<std::string> daemon_log_of(const std::function<void()> &action);
