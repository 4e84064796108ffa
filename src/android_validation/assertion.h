#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <vector>

/// Called once, on the loop.
using velm_android_verify_assertion_callback = void (*)(bool success, void *user_data);

/// Who opens an Android integrity token: this device, or Google's decoding service.
inline constexpr int velm_android_method_local = 0;
inline constexpr int velm_android_method_remote = 1;

/// An Android verification on its way: an owned copy of all that it needs, made when it was asked
/// for, freed when `result_cb` has been called.
struct android_verify_assertion_input {
    std::vector<std::uint8_t> assertion_object_buf; // the integrity token as received
    std::vector<std::uint8_t> message_digest_buf;   // what the token's nonce must equal
    velm_android_verify_assertion_callback result_cb = nullptr;
    void *user_data = nullptr;
    std::optional<in_addr> asker; // whose address the token came from, when that is known
};
