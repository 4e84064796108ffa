#pragma once

#include <openssl/asn1.h>

#include <cstdint>
#include <optional>

/// Seconds since the epoch for a time of a certificate, also beyond 2038 where time_t has 32 bits. Nothing
/// for a time that is none.
[[nodiscard]] std::optional<std::int64_t> asn1_time_seconds(const ASN1_TIME *time);
