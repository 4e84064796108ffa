#include <cmath>
#include <cstdint>
#include <optional>
#include <string>

#include "allocation_meter.h"
#include "fake_cloud.h"
#include "fakes/fake_clock.h"
#include "fuzz_target.h"
#include "google/jwt.h"
#include "velm_google_auth.h"

/// The token endpoint's answer: two bytes of status, 0 for 200, and the body.

/// Signing costs a thousand times what reading the answer does.
std::optional<std::string> velm_google_auth_make_jwt(const cJSON *, const char *, const char *,
                                                     std::time_t)
{
    return "header.claim.signature";
}

namespace {

constexpr std::time_t now = 1'750'000'000;

struct outcome {
    int calls = 0;
    json_ptr token;
};

void received(json_ptr token, void *context)
{
    auto *const result = static_cast<outcome *>(context);
    ++result->calls;
    result->token = std::move(token);
}

void accepted(const cJSON *token)
{
    FUZZ_REQUIRE(cJSON_IsObject(token));
    const cJSON *const valid_to = cJSON_GetObjectItemCaseSensitive(token, "valid_to");
    FUZZ_REQUIRE(cJSON_IsNumber(valid_to) && std::isfinite(valid_to->valuedouble));
    FUZZ_REQUIRE(valid_to->valuedouble >= static_cast<double>(now));
    FUZZ_REQUIRE(valid_to->valuedouble <= static_cast<double>(now) + 3600);
    const char *const text =
        cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(token, "access_token"));
    FUZZ_REQUIRE(text != nullptr && *text != '\0');
    FUZZ_REQUIRE(cJSON_GetArraySize(token) == 2); // nothing else of the answer is kept
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const json_ptr key{cJSON_Parse("{}")};
    fake_clock_set(now);
    fuzz_input in{data, size};
    const std::size_t word = in.word();
    const int code = word == 0 ? 200 : static_cast<int>(word) - 8;
    const std::string body{fuzz_text(in.rest())};
    const allocation_meter meter;
    {
        outcome result;
        velm_google_auth_request_access_token(key.get(), "scope", received, &result);
        fake_cloud_turn();
        fake_cloud_answer(code, body);
        FUZZ_REQUIRE(result.calls == 1 && fake_cloud_requests.empty());
        FUZZ_REQUIRE(code == 200 || result.token == nullptr);
        FUZZ_REQUIRE(meter.peak() <= 40 * size + 80 * 1024);
        if (result.token != nullptr) {
            accepted(result.token.get());
        }
    }
    return 0;
}
