#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fakes/app_attest_maker.h"
#include "fuzz_target.h"
#include "ios_validation/ios_app_validate.h"

/// A phone and a validator that trusts it, for the targets that fuzz App Attest's objects. The
/// chain is not verified (see trusted_chain.h); every other check is the real one.

inline constexpr char ios_phone_app_id[] = "Q4TZ8KM2W7.com.norvale.afc";

struct ios_outcome {
    unsigned result = 0;
    std::vector<test_bytes> keys;        // that write_pub_key received
    std::vector<std::uint32_t> counters; // that set_counter received
    std::optional<test_bytes> key;       // what read_pub_key gives
    std::uint32_t stored = 0;            // what get_counter gives
};

class ios_phone {
  public:
    ios_phone();

    /// The object's check by a validator for this app.
    [[nodiscard]] ios_outcome attest(const char *app_id, fuzz_bytes object, fuzz_bytes hash) const;
    [[nodiscard]] ios_outcome check_assertion(const test_bytes &key, std::uint32_t stored,
                                              fuzz_bytes object, fuzz_bytes hash) const;
    /// The phone's credential certificate, which has this value of the nonce extension until the next
    /// call.
    [[nodiscard]] X509 *credential(const test_bytes &extension) const;
    /// The same, encoded.
    [[nodiscard]] test_bytes leaf(const test_bytes &extension) const;
    /// The same, quicker, for an extension as Apple makes it around this nonce.
    [[nodiscard]] test_bytes leaf_with_nonce(const test_bytes &nonce) const;
    [[nodiscard]] const test_bytes &intermediate() const;

    app_attest_phone phone{ios_phone_app_id};
    test_bytes hash = sha256_of(bytes_of("client data"));

  private:
    std::string root_pem_;
    test_bytes intermediate_;
    x509_ptr credential_; // its last extension is the nonce's
    test_bytes leaf_;     // with a nonce of zeros
};

/// Made once.
[[nodiscard]] const ios_phone &the_ios_phone();
