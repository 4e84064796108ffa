#include "common/daemon_engine.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <string_view>

#include "android_validation/token.h"
#include "async/common_async.h"
#include "crypto/common_crypto.h"
#include "handles/cjose.h"
#include "handles/cjson.h"
#include "handles/fd.h"
#include "handles/libevent.h"
#include "logger/common_logger.h"
#include "velm_attestation_engine.h"
#include "velm_config.h"
#include "velm_nvram_pairings.h"
#include "velm_utils.h"

namespace {

constexpr char device_id[] = "benchmark";

struct module_state {
    velm_config config{};
    std::string attestation_key;
    event_base_ptr loop;
    std::optional<bool> verdict; // of the token on its way
    std::vector<std::string> *log = nullptr;
};
module_state state;

/// The engine reads its keys and its root from files: this one lives in memory.
class memory_file {
  public:
    explicit memory_file(std::string_view content) : fd_{memfd_create("velm-bench", MFD_CLOEXEC)}
    {
        ok_ = fd_ && write(fd_.get(), content.data(), content.size()) ==
                         static_cast<ssize_t>(content.size());
    }
    [[nodiscard]] bool ok() const
    {
        return ok_;
    }
    [[nodiscard]] std::string path() const
    {
        return "/proc/self/fd/" + std::to_string(fd_.get());
    }

  private:
    unique_fd fd_;
    bool ok_ = false;
};

template <std::size_t Size>
void set_text(char (&field)[Size], const std::string &text)
{
    velm_config_copy_text(field, Size, text.c_str());
}

void loop_start()
{
    if (state.loop == nullptr) {
        state.loop.reset(event_base_new());
        common_async_set_event_base(state.loop.get());
        common_async_init();
    }
}

/// The engine looks at the root only after it took the Android keys; a verification that needs none
/// gets keys that nothing will use.
const std::string &or_nothing(const std::string &jwk)
{
    static const std::string nothing = "{}";
    return jwk.empty() ? nothing : jwk;
}

bool is_of_init(const std::string &line)
{
    return line.find("velm_attestation_engine_init") != std::string::npos;
}

void line_collect(const char * /*category*/, int level, const char *text, const char * /*file*/,
                  int /*line*/)
{
    if (level >= LOG_LEVEL_DEBUG) {
        const std::string_view line{text};
        state.log->emplace_back(line.substr(0, line.find_last_not_of('\n') + 1));
    }
}

constexpr common_logger_observer collector = {nullptr, nullptr, line_collect, nullptr};

std::string text_of(const cJSON *object, const char *name)
{
    const char *text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name));
    return text != nullptr ? text : "";
}

std::vector<std::uint8_t> base64url_decode(const std::string &text)
{
    if (text.empty()) {
        return {};
    }
    const std::string plain = velm_utils_unescape_html_encoded_base64_chars(text.c_str());
    const std::string_view digits = std::string_view{plain}.substr(0, plain.find('='));
    std::uint8_t *decoded = nullptr;
    std::size_t length = 0;
    cjose_err error{};
    if (!cjose_base64url_decode(digits.data(), digits.size(), &decoded, &length, &error)) {
        return {};
    }
    const cjose_bytes owned{decoded};
    return {decoded, decoded + length};
}

void verdict_take(bool success, void * /*user_data*/)
{
    state.verdict = success;
}

} // namespace

/// Takes the place of the store: no record is read here.
json_ptr velm_nvram_pairings_select_pairing(const char * /*dev_id*/)
{
    json_ptr pairing{cJSON_CreateObject()};
    cJSON_AddStringToObject(pairing.get(), "attestation_key", state.attestation_key.c_str());
    return pairing;
}

bool daemon_engine_start(const daemon_engine_wish &wish)
{
    const memory_file decryption{or_nothing(wish.decryption_jwk)};
    const memory_file verification{or_nothing(wish.verification_jwk)};
    const memory_file root{wish.ios_root_pem};
    if (!decryption.ok() || !verification.ok() || !root.ok()) {
        return false;
    }
    velm_config_set_defaults(&state.config);
    set_text(state.config.app_ios_appid, wish.ios_app_id);
    set_text(state.config.app_android_package_name, wish.android_package_name);
    set_text(state.config.app_android_integrity_d_key_path, decryption.path());
    set_text(state.config.app_android_integrity_v_key_path, verification.path());
    set_text(state.config.app_ios_attest_root_ca_path,
             wish.ios_root_pem.empty() ? "" : root.path());
    loop_start();
    const auto log = daemon_log_of([] { velm_attestation_engine_init(&state.config); });
    return std::none_of(log.begin(), log.end(), is_of_init);
}

void daemon_engine_pair(std::span<const std::uint8_t> public_key_der)
{
    state.attestation_key = common_crypto_base64_encode(public_key_der).value_or("");
}

bool daemon_engine_attest(std::span<const std::uint8_t> attestation,
                          std::span<const std::uint8_t> client_data_hash)
{
    return velm_attestation_engine_ios_verify_attestation(device_id, attestation, client_data_hash)
        .success;
}

bool daemon_engine_assert(std::span<const std::uint8_t> assertion,
                          std::span<const std::uint8_t> client_data_hash)
{
    return velm_attestation_engine_ios_verify_assertion(device_id, assertion, client_data_hash);
}

bool daemon_engine_judge_token(std::span<const std::uint8_t> token,
                               std::span<const std::uint8_t> message_digest)
{
    state.verdict.reset();
    velm_attestation_engine_android_verify_assertion(
        device_id, token, message_digest, velm_android_method_local, verdict_take, nullptr);
    while (!state.verdict.has_value()) {
        event_base_loop(state.loop.get(), EVLOOP_ONCE);
    }
    return *state.verdict;
}

std::optional<token_binding> token_binding_read(std::span<const std::uint8_t> token,
                                                const daemon_engine_wish &keys)
{
    const auto payload = android_token_open(token, keys.decryption_jwk, keys.verification_jwk);
    const json_ptr verdict{payload.has_value() ? cJSON_Parse(payload->c_str()) : nullptr};
    const cJSON *request = cJSON_GetObjectItemCaseSensitive(verdict.get(), "requestDetails");
    std::string nonce = text_of(request, "nonce");
    if (nonce.empty()) {
        nonce = text_of(request, "requestHash");
    }
    const std::string stamp = text_of(request, "timestampMillis");
    token_binding binding{text_of(request, "requestPackageName"), base64url_decode(nonce), 0};
    std::int64_t milliseconds = 0;
    const auto read = std::from_chars(stamp.data(), stamp.data() + stamp.size(), milliseconds);
    if (binding.package_name.empty() || binding.message_digest.empty() || read.ec != std::errc{} ||
        read.ptr != stamp.data() + stamp.size()) {
        return std::nullopt;
    }
    binding.timestamp_s = milliseconds / 1000;
    return binding;
}

std::vector<std::string> daemon_log_of(const std::function<void()> &action)
{
    std::vector<std::string> lines;
    state.log = &lines;
    common_logger_configure_from_string("enabled=yes:level=debug:syslog=no:stdout=no");
    common_logger_set_observer(&collector);
    action();
    common_logger_set_observer(nullptr);
    common_logger_configure_from_string("enabled=no:level=error:syslog=no:stdout=no");
    state.log = nullptr;
    return lines;
}
