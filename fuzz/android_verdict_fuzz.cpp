#include <string>

#include "allocation_meter.h"
#include "android_validation/verdict.h"
#include "fakes/app_attest_maker.h"
#include "fakes/fake_clock.h"
#include "fuzz_target.h"

/// The verdict inside a token, as JSON: a good one has the package name below, the digest of
/// nothing as its nonce, and is made at the instant below.

namespace {

constexpr char package_name[] = "com.norvale.afc";
constexpr std::time_t now = 1'750'000'000;

bool text_is(const cJSON *object, const char *member, std::string_view expected)
{
    const char *text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, member));
    return text != nullptr && expected == text;
}

/// What no verdict may be without, whatever else it says.
void accepted(const cJSON *verdict)
{
    const cJSON *request = cJSON_GetObjectItemCaseSensitive(verdict, "requestDetails");
    const cJSON *app = cJSON_GetObjectItemCaseSensitive(verdict, "appIntegrity");
    const cJSON *device = cJSON_GetObjectItemCaseSensitive(verdict, "deviceIntegrity");
    FUZZ_REQUIRE(text_is(request, "requestPackageName", package_name));
    FUZZ_REQUIRE(text_is(app, "appRecognitionVerdict", "PLAY_RECOGNIZED"));
    const cJSON *labels = cJSON_GetObjectItemCaseSensitive(device, "deviceRecognitionVerdict");
    FUZZ_REQUIRE(cJSON_IsArray(labels) && cJSON_GetArraySize(labels) >= 3);
    const char *const time =
        cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(request, "timestampMillis"));
    FUZZ_REQUIRE(time != nullptr && std::strtoull(time, nullptr, 10) / 1000 >=
                                        static_cast<unsigned long long>(now - 3600));
}

/// The result depends on the verdict, not on how its JSON is written.
void run(const std::string &json)
{
    static const test_bytes digest = sha256_of({});
    android_verify_assertion_input input;
    input.message_digest_buf = digest;
    const json_ptr verdict{cJSON_Parse(json.c_str())};
    const bool good = android_interpret_verdict(input, verdict.get(), package_name);
    if (!good) {
        return;
    }
    accepted(verdict.get());
    FUZZ_REQUIRE(!android_interpret_verdict(input, verdict.get(), "com.norvale.other"));
    input.message_digest_buf[0] ^= 1;
    FUZZ_REQUIRE(!android_interpret_verdict(input, verdict.get(), package_name));
    const json_text text{cJSON_PrintUnformatted(verdict.get())};
    const json_ptr again{cJSON_Parse(text.get())};
    input.message_digest_buf[0] ^= 1;
    FUZZ_REQUIRE(android_interpret_verdict(input, again.get(), package_name));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fake_clock_set(now);
    const std::string json{fuzz_text({data, size})};
    run(json); // what the libraries make once
    const allocation_meter meter;
    run(json);
    FUZZ_REQUIRE(meter.peak() <= 96 * size + 80 * 1024);
    FUZZ_REQUIRE(meter.left() == 0);
    return 0;
}
