#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "handles/handle.h"

/// Checks the two objects of Apple's App Attest: the attestation (a fresh hardware key belongs to a
/// genuine instance of the app) and the assertion (a request was signed by that key). Stores
/// nothing: key and counter go through the callbacks. A validator keeps no state between calls, so
/// a failed call may be followed by another; one call at a time.

struct ios_app_validator;

/// What the validator asks of its user; each callback is called with the validator.
struct ios_app_validator_callbacks {
    /// Receives the credential public key as DER SubjectPublicKeyInfo; non-zero accepts it.
    unsigned (*write_pub_key)(ios_app_validator *iav, std::span<const std::uint8_t> der);
    /// The key that write_pub_key received, or nothing.
    std::optional<std::vector<std::uint8_t>> (*read_pub_key)(ios_app_validator *iav);
    /// Non-zero accepts the new counter.
    unsigned (*set_counter)(ios_app_validator *iav, std::uint32_t counter);
    /// The last accepted counter, or ios_app_counter_unknown.
    std::uint32_t (*get_counter)(ios_app_validator *iav);
};

inline constexpr std::uint32_t ios_app_counter_unknown = 0xffffffff;

/// Also takes null.
void ios_app_validator_free(ios_app_validator *validator);
using ios_app_validator_ptr = handle<ios_app_validator, ios_app_validator_free>;

/// Null when the app id (team id, ".", bundle id) is missing or empty. Copies the app id; borrows
/// callbacks and user data.
[[nodiscard]] ios_app_validator_ptr
ios_app_validator_new(const char *app_id, const ios_app_validator_callbacks *callbacks,
                      void *user_data);

/// 1 accepts keys of the development environment besides those of the production one.
void ios_app_validator_set_develop(ios_app_validator *validator, std::uint8_t allow);

/// Trusts the root of this PEM text (copied) in place of Apple's; a missing or empty text restores
/// Apple's. 1: the copy can always be made, or the process ends.
[[nodiscard]] int ios_app_validator_set_root_ca(ios_app_validator *validator, const char *pem);

[[nodiscard]] void *ios_app_validator_get_user_data(const ios_app_validator *validator);

/// 0 on failure, else the result of write_pub_key (without one: 1). Null spans are a failure too.
[[nodiscard]] unsigned ios_app_validate_attestation(ios_app_validator *validator,
                                                    std::span<const std::uint8_t> attestation,
                                                    std::span<const std::uint8_t> client_data_hash);

/// 0 on failure, else the result of set_counter. The hash has 32 bytes.
[[nodiscard]] unsigned ios_app_validate_assertion(ios_app_validator *validator,
                                                  std::span<const std::uint8_t> assertion,
                                                  std::span<const std::uint8_t> client_data_hash);
