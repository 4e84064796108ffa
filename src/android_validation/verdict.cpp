#include "android_validation/verdict.h"

#include <charconv>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "handles/cjose.h"
#include "logger/fatal.h"
#include "story/reason.h"
#include "text/or_empty.h"
#include "velm_utils.h"

namespace {

constexpr char log_category[] = "velm_attestation_engine";

/// Every line of the judgement begins with its name, whichever step writes it.
constexpr char judge[] = "android_interpret_verdict";

/// A nonce is bound to one request on its way; a request hash may come from a token made ahead.
constexpr std::int64_t nonce_window_s = 60;
constexpr std::int64_t request_hash_window_s = 3600;

/// Null when the member is missing or no object.
const cJSON *object_member(const cJSON *object, const char *name)
{
    const cJSON *const member = cJSON_GetObjectItemCaseSensitive(object, name);
    return cJSON_IsObject(member) ? member : nullptr;
}

/// Empty when the member is missing, no text or an empty one.
const char *text_member(const cJSON *object, const char *name)
{
    const char *text = velm_utils_get_field_value_from_json_object(object, name);
    return text != nullptr ? text : "";
}

bool package_is_ours(const cJSON *request_details, const char *package_name)
{
    const char *name = text_member(request_details, "requestPackageName");
    if (*name == '\0') {
        LOG_ERROR("%s - no requestPackageName", judge);
        return false;
    }
    if (std::string_view{name} != package_name) {
        LOG_ERROR("%s - invalid requestPackageName ('%s' vs '%s')", judge, name, package_name);
        story_reason_set("it is of another app than app.android.package_name");
        return false;
    }
    return true;
}

/// The padding is left out, and what follows it: the library would ignore both, but ends the process
/// when one character more than whole groups of four comes before a "=".
std::optional<std::vector<std::uint8_t>> nonce_decode(std::string_view nonce)
{
    nonce = nonce.substr(0, nonce.find('='));
    std::uint8_t *decoded = nullptr;
    std::size_t length = 0;
    cjose_err error{}; // cjose leaves it alone on some failures
    const bool ok = cjose_base64url_decode(nonce.data(), nonce.size(), &decoded, &length, &error);
    const cjose_bytes owned{decoded};
    if (!ok) {
        LOG_ERROR("%s - cjose_base64url_decode failed: %s, file: %s, function: %s, line: %ld",
                  judge, text_or_empty(error.message), text_or_empty(error.file),
                  text_or_empty(error.function), static_cast<long>(error.line));
        LOG_ERROR("%s - cannot decode nonce", judge);
        story_reason_set("its integrity token was made for another request");
        return std::nullopt;
    }
    return std::vector<std::uint8_t>{decoded, decoded + length};
}

/// What follows padding is not decoded, which is harmless: the bytes before it must be the digest
/// from its first byte to its last.
bool nonce_is_digest(const std::string &nonce, const std::vector<std::uint8_t> &digest)
{
    const auto decoded = nonce_decode(nonce);
    if (!decoded.has_value()) {
        return false;
    }
    if (decoded->size() != digest.size()) {
        LOG_ERROR("%s - invalid nonce (len)", judge);
        story_reason_set("its integrity token was made for another request");
        return false;
    }
    if (*decoded != digest) {
        LOG_ERROR("%s - invalid nonce (cmp)", judge);
        story_reason_set("its integrity token was made for another request");
        return false;
    }
    return true;
}

bool is_made_for_this_request(const cJSON *request_details, const std::vector<std::uint8_t> &digest)
{
    const char *text = text_member(request_details, "nonce");
    if (*text == '\0') {
        text = text_member(request_details, "requestHash");
    }
    if (*text == '\0') {
        LOG_ERROR("%s - no nonce", judge);
        story_reason_set("its integrity token names no request");
        return false;
    }
    const std::string nonce = velm_utils_unescape_html_encoded_base64_chars(text);
    if (nonce.empty()) {
        LOG_ERROR("%s - cannot unescape nonce", judge);
        return false;
    }
    LOG_TRACE("%s - nonce: %s", judge, nonce.c_str());
    return nonce_is_digest(nonce, digest);
}

/// Text of decimal digits only; nothing for a number, a sign, a blank or an overflow.
std::optional<std::uint64_t> milliseconds_parse(const cJSON *member)
{
    if (!cJSON_IsString(member)) {
        return std::nullopt;
    }
    const std::string_view digits{member->valuestring};
    std::uint64_t value = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, 10);
    if (error != std::errc{} || end != digits.data() + digits.size()) {
        return std::nullopt;
    }
    return value;
}

bool is_fresh(const cJSON *request_details)
{
    const cJSON *const member =
        cJSON_GetObjectItemCaseSensitive(request_details, "timestampMillis");
    if (member == nullptr) {
        LOG_ERROR("%s - no timestampMillis", judge);
        story_reason_set("its integrity token has no time");
        return false;
    }
    const auto milliseconds = milliseconds_parse(member);
    if (!milliseconds.has_value()) {
        LOG_ERROR("%s - invalid timestamp", judge);
        story_reason_set("its integrity token has no time");
        return false;
    }
    const std::time_t now = std::time(nullptr);
    if (now == static_cast<std::time_t>(-1)) {
        LOG_ERROR("%s - cannot get time", judge);
        return false;
    }
    const bool has_request_hash = *text_member(request_details, "requestHash") != '\0';
    const std::int64_t window_s = has_request_hash ? request_hash_window_s : nonce_window_s;
    const std::int64_t age_s = now - static_cast<std::int64_t>(*milliseconds / 1000);
    if (age_s > window_s) {
        LOG_ERROR("%s - token expired", judge);
        story_reason_set("its integrity token is too old");
        return false;
    }
    return true;
}

bool app_is_recognized(const cJSON *app_integrity)
{
    const char *verdict =
        velm_utils_get_field_value_from_json_object(app_integrity, "appRecognitionVerdict");
    if (verdict == nullptr) {
        LOG_ERROR("%s - no appRecognitionVerdict", judge);
        story_reason_set("Play does not say that it knows the app");
        return false;
    }
    if (std::string_view{verdict} != "PLAY_RECOGNIZED") {
        LOG_ERROR("%s - appRecognitionVerdict is: %s", judge, verdict);
        story_reason_set("Play does not recognize the app");
        return false;
    }
    return true;
}

bool is_empty(const cJSON *value)
{
    const char *text = cJSON_GetStringValue(value);
    const bool is_container = cJSON_IsArray(value) || cJSON_IsObject(value);
    return value == nullptr || (text != nullptr && *text == '\0') ||
           (is_container && value->child == nullptr);
}

bool has_label(const cJSON *labels, std::string_view label)
{
    for (const cJSON *item = labels->child; item != nullptr; item = item->next) {
        const char *text = cJSON_GetStringValue(item);
        if (text != nullptr && text == label) {
            return true;
        }
    }
    return false;
}

const char *word(bool value)
{
    return value ? "true" : "false";
}

bool device_meets_all(const cJSON *device_integrity)
{
    const cJSON *const labels =
        cJSON_GetObjectItemCaseSensitive(device_integrity, "deviceRecognitionVerdict");
    if (is_empty(labels)) {
        LOG_ERROR("%s - no deviceRecognitionVerdict", judge);
        story_reason_set("Play does not say that the device is genuine");
        return false;
    }
    if (!cJSON_IsArray(labels)) {
        LOG_ERROR("%s - invalid deviceRecognitionVerdict", judge);
        return false;
    }
    const bool basic = has_label(labels, "MEETS_BASIC_INTEGRITY");
    const bool device = has_label(labels, "MEETS_DEVICE_INTEGRITY");
    const bool strong = has_label(labels, "MEETS_STRONG_INTEGRITY");
    if (!basic || !device || !strong) {
        LOG_ERROR("%s - deviceRecognitionVerdict is: basic=%s device=%s strong=%s", judge,
                  word(basic), word(device), word(strong));
        story_reason_set("the device has not basic, device and strong integrity");
        return false;
    }
    return true;
}

/// Passes when the phone says nothing about Play Protect; what is said must be that all is well.
bool environment_is_clean(const cJSON *environment_details)
{
    const cJSON *const verdict =
        cJSON_GetObjectItemCaseSensitive(environment_details, "playProtectVerdict");
    if (is_empty(verdict)) {
        return true;
    }
    const char *text = cJSON_IsString(verdict) ? verdict->valuestring : "no text";
    if (std::string_view{text} != "NO_ISSUES") {
        LOG_ERROR("%s - playProtectVerdict is: %s", judge, text);
        story_reason_set("Play Protect reports issues");
        return false;
    }
    return true;
}

struct verdict_parts {
    const cJSON *request_details;
    const cJSON *app_integrity;
    const cJSON *device_integrity;
    const cJSON *environment_details; // may be null
};

std::optional<verdict_parts> parts_of(const cJSON *verdict)
{
    const verdict_parts parts{
        object_member(verdict, "requestDetails"), object_member(verdict, "appIntegrity"),
        object_member(verdict, "deviceIntegrity"), object_member(verdict, "environmentDetails")};
    if (parts.request_details == nullptr) {
        LOG_ERROR("%s - no requestDetails", judge);
        return std::nullopt;
    }
    if (parts.app_integrity == nullptr) {
        LOG_ERROR("%s - no appIntegrity", judge);
        return std::nullopt;
    }
    if (parts.device_integrity == nullptr) {
        LOG_ERROR("%s - no deviceIntegrity", judge);
        return std::nullopt;
    }
    return parts;
}

} // namespace

bool android_interpret_verdict(const android_verify_assertion_input &input, const cJSON *verdict,
                               const char *package_name)
{
    REQUIRE_NOT_NULL(package_name, "package_name");
    const auto parts = parts_of(verdict);
    if (!parts.has_value() || !package_is_ours(parts->request_details, package_name) ||
        !is_made_for_this_request(parts->request_details, input.message_digest_buf) ||
        !is_fresh(parts->request_details) || !app_is_recognized(parts->app_integrity) ||
        !device_meets_all(parts->device_integrity) ||
        !environment_is_clean(parts->environment_details)) {
        return false;
    }
    LOG_TRACE("%s - success", judge);
    return true;
}
