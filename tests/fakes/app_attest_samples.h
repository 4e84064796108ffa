#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "handles/cjson.h"

/// The real objects under tests/data, read for the tests.

using test_bytes = std::vector<std::uint8_t>;

/// A file of tests/data; a missing one fails the test run.
[[nodiscard]] std::string test_data_text(const std::string &name);
[[nodiscard]] test_bytes test_data_bytes(const std::string &name);
[[nodiscard]] json_ptr test_data_json(const std::string &name);
[[nodiscard]] test_bytes test_bytes_from_hex(const std::string &hex);

struct app_attest_sample_assertion {
    test_bytes object;
    test_bytes client_data_hash;
    unsigned counter = 0;
};

struct app_attest_sample {
    std::string name;
    std::string app_id;
    bool development = false;
    std::time_t verify_at = 0;
    test_bytes attestation;
    test_bytes client_data_hash;
    test_bytes public_key; // DER SubjectPublicKeyInfo
    std::optional<app_attest_sample_assertion> assertion;
};

/// "ios-14.4", "chiff-2021", "apple-guide-2024" or "insight-staging-2026".
[[nodiscard]] app_attest_sample app_attest_sample_load(const std::string &name);
