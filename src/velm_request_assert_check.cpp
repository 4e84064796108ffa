#include "velm_request_assert_check.h"

#include <strings.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "crypto/common_crypto.h"
#include "google/junk.h"
#include "handles/secret.h"
#include "logger/fatal.h"
#include "request/input.h"
#include "request/record.h"
#include "story/reason.h"
#include "velm_attestation_engine.h"
#include "velm_challenge_engine.h"
#include "velm_utils.h"

namespace {

constexpr char log_category[] = "velm_request_assert_check";
constexpr char check_name[] = "make_assert_check";

struct module_state {
    const velm_config *config = nullptr;
};
module_state state;

void log_finished(const velm_request_preprocessor *p)
{
    LOG_TRACE("%s [%p] - finished", check_name, static_cast<const void *>(p));
}

/// What was found out deep inside, where only yes or no comes back.
void explain(velm_request_preprocessor *p, const story_reason &reason)
{
    if (reason.text != nullptr) {
        p->explained = "the proof that it is the app, on a genuine device, is not valid";
        p->hint = reason.text;
    }
}

/// A failed assertion counts only while integrity checking is switched on.
int android_break_code(bool success)
{
    if (success) {
        return VELM_BREAK_NONE;
    }
    if (state.config->app_android_integrity_enabled) {
        return VELM_BREAK_ASSERTION;
    }
    LOG_ERROR("%s - IGNORING FAILED ASSERTION!", "android_verify_assertion_result");
    return VELM_BREAK_NONE;
}

/// The engine's answer, which may come after the request has gone: the record waits for it.
void android_verify_assertion_result(bool success, void *user_data) noexcept
{
    auto *const p = static_cast<velm_request_preprocessor *>(user_data);
    const int code = android_break_code(success);
    const story_reason reason = story_reason_take();
    if (code != VELM_BREAK_NONE) {
        explain(p, reason);
    }
    log_finished(p);
    velm_request_preprocessor_continue(p, code);
}

int android_method()
{
    return strcasecmp(state.config->app_android_integrity_method, "remote") == 0
               ? velm_android_method_remote
               : velm_android_method_local;
}

int refuse(velm_request_preprocessor *p, const char *reason)
{
    p->refusal = reason;
    return VELM_BREAK_ASSERTION;
}

/// Nothing when the engine will report.
std::optional<int> verify_assertion(velm_request_preprocessor &p,
                                    std::span<const std::uint8_t> assertion,
                                    std::span<const std::uint8_t> digest)
{
    p.proof = velm_request_proof_take(p.client_device_id);
    const velm_device_type type = velm_utils_device_type_from_string(p.client_device_type);
    if (!p.proof->attestation_key.empty() && type != velm_device_type::ios) {
        // Else whoever knows an iPhone's id could call it an Android phone where those prove nothing.
        return refuse(&p, "the pairing is of App Attest, the device type is another");
    }
    switch (type) {
    case velm_device_type::ios:
        (void)story_reason_take();
        if (velm_attestation_engine_ios_verify_assertion(p.client_device_id, assertion, digest)) {
            return VELM_BREAK_NONE;
        }
        explain(&p, story_reason_take());
        return VELM_BREAK_ASSERTION;
    case velm_device_type::android: {
        const velm_google_asker asking{request_peer_address(p.request)};
        velm_attestation_engine_android_verify_assertion(p.client_device_id, assertion, digest,
                                                         android_method(),
                                                         android_verify_assertion_result, &p);
        return std::nullopt;
    }
    case velm_device_type::unknown:
        break;
    }
    return refuse(&p, "unknown device type");
}

std::optional<int> assert_check(velm_request_preprocessor &p)
{
    // The exact bytes that the phone signed.
    std::string message = request_body_require(p.request, check_name, "message_buf");
    const wiped_at_end wiping{&message}; // a password is in it
    if (message.empty()) {
        return refuse(&p, "empty body");
    }
    (void)story_reason_take();
    if (velm_challenge_engine_consume_challenge(p.client_challenge) == 0) {
        const story_reason reason = story_reason_take();
        p.explained = reason.text != nullptr
                          ? reason.text
                          : "its challenge is not known: it was used before, or is from before a "
                            "restart or reload, or is older than 60 s";
        return VELM_BREAK_CHALLENGE;
    }
    const auto digest = common_crypto_sha256(request_bytes(message));
    if (!digest.has_value()) {
        return refuse(&p, "no digest of the body");
    }
    const auto assertion = common_crypto_base64_decode(p.client_assertion);
    if (!assertion.has_value()) {
        return refuse(&p, "assertion is no base64");
    }
    return verify_assertion(p, *assertion, *digest);
}

void require_field(const void *field, const char *name)
{
    if (field == nullptr) {
        fatal_null_reference(log_category, __FILE__, __LINE__, check_name, name);
    }
}

/// What the request check guarantees.
void require_fields(const velm_request_preprocessor &p)
{
    require_field(p.client_device_id, "p->client_device_id");
    require_field(p.client_assertion, "p->client_assertion");
    require_field(p.client_challenge, "p->client_challenge");
    require_field(p.request, "p->request");
}

std::optional<int> assert_check_run(velm_request_preprocessor &p)
{
    LOG_TRACE("%s [%p] - start", check_name, static_cast<const void *>(&p));
    require_fields(p);
    const std::optional<int> code = assert_check(p);
    if (code.has_value()) {
        log_finished(&p);
    }
    return code;
}

} // namespace

void velm_request_assert_check_init(const velm_config *config)
{
    LOG_TRACE("%s", __func__);
    state.config = config;
}

void make_assert_check(velm_request_preprocessor *p)
{
    common_async_action_call(preproc_check_run<assert_check_run>, p);
}
