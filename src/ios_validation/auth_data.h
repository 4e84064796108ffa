#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

/// Authenticator data (WebAuthn), big-endian:
///     offset  width  field
///          0     32  rpIdHash            SHA-256 of the app id
///         32      1  flags               not looked at
///         33      4  signCount
///         37     16  aaguid              attestation only, as all that follows
///         53      2  credentialIdLength
///         55    ...  credentialId        only the first 32 bytes are used
/// What follows (the COSE key, extensions) is not looked at.
struct ios_auth_data {
    std::array<std::uint8_t, 32> rp_id_hash{};
    std::uint32_t counter = 0;
    std::array<std::uint8_t, 16> aaguid{};
    std::array<std::uint8_t, 32> credential_id{};
};

enum class ios_auth_data_mode { attestation, assertion };

/// Nothing when the data is too short for the mode.
[[nodiscard]] std::optional<ios_auth_data> ios_auth_data_parse(std::span<const std::uint8_t> bytes,
                                                               ios_auth_data_mode mode);
