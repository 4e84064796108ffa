#include <cstdio>
#include <fstream>
#include <string>

#include "allocation_meter.h"
#include "async/common_async.h"
#include "fake_cloud.h"
#include "fakes/fake_clock.h"
#include "fuzz_target.h"
#include "handles/argument.h"
#include "velm_config.h"
#include "velm_google_auth.h"
#include "velm_google_integrity.h"

/// The decoding service's answer: the phone's token, NUL, two bytes of status, 0 for 200, the body.

/// As the real one, it calls back on a later turn of the loop.
int velm_google_auth_request_access_token(const cJSON *, const char *,
                                          velm_google_auth_response_handler response_handler,
                                          void *context)
{
    struct waiting {
        velm_google_auth_response_handler handler;
        void *context;
    };
    const auto answer = [](void *argument, short, common_async_context *) {
        const auto wait = adopt<waiting>(argument);
        wait->handler(json_ptr{cJSON_Parse(R"({"access_token":"a","valid_to":1e18})")},
                      wait->context);
    };
    return common_async_action_call(answer,
                                    release_new<waiting>(waiting{response_handler, context}));
}

void velm_google_auth_init(const velm_config *)
{
}

namespace {

velm_config *make_config()
{
    static velm_config config{};
    std::string path = "/dev/shm/velm_fuzz_key_XXXXXX";
    FUZZ_REQUIRE(mkstemp(path.data()) >= 0);
    std::ofstream{path} << R"({"project_id":"velm-test"})";
    velm_config_copy_text(config.app_android_package_name, sizeof config.app_android_package_name,
                          "com.norvale.afc");
    velm_config_copy_text(config.app_android_integrity_privatekey_path,
                          sizeof config.app_android_integrity_privatekey_path, path.c_str());
    velm_google_integrity_init(&config);
    std::remove(path.c_str());
    fake_cloud_headers_are_clean({}); // what OpenSSL's random generator makes once
    return &config;
}

struct outcome {
    int calls = 0;
    bool has_verdict = false;
};

void received(const cJSON *verdict, void *context)
{
    auto *const result = static_cast<outcome *>(context);
    ++result->calls;
    result->has_verdict = verdict != nullptr;
    FUZZ_REQUIRE(verdict == nullptr || cJSON_IsObject(verdict));
}

/// The token reaches the service as the phone sent it.
void is_clean(const http_client_request_data &request, const std::string &token)
{
    fake_cloud_headers_are_clean(request);
    const json_ptr body{cJSON_Parse(request.post_data.c_str())};
    const char *const sent =
        cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(body.get(), "integrity_token"));
    FUZZ_REQUIRE(sent != nullptr && token == sent);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static std::time_t now = 1'750'000'000;
    static const velm_config *const config = make_config();
    FUZZ_REQUIRE(config != nullptr);
    fake_clock_set(now += 7200); // no silence of an earlier run
    fuzz_input in{data, size};
    const std::string_view token = in.text_until('\0');
    const std::size_t word = in.word();
    const int code = word == 0 ? 200 : static_cast<int>(word) - 8;
    const std::string body{fuzz_text(in.rest())};
    outcome result;
    const allocation_meter meter;
    velm_google_integrity_get_verdict(fuzz_bytes_of(token), received, &result);
    FUZZ_REQUIRE(result.calls == 0); // never inside the call
    fake_cloud_turn();
    if (!fake_cloud_requests.empty()) {
        is_clean(fake_cloud_requests.front().data, std::string{token});
        fake_cloud_answer(code, body);
    }
    FUZZ_REQUIRE(result.calls == 1 && fake_cloud_requests.empty());
    FUZZ_REQUIRE(code == 200 || !result.has_verdict);
    FUZZ_REQUIRE(meter.peak() <= 64 * size + 96 * 1024);
    return 0;
}
