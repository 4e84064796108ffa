#include <cstdio>
#include <fstream>
#include <string>
#include <utility>

#include "allocation_meter.h"
#include "async/common_async.h"
#include "fake_cloud.h"
#include "fakes/fake_clock.h"
#include "fakes/fake_nvram.h"
#include "fuzz_target.h"
#include "google/push_answer.h"
#include "handles/argument.h"
#include "velm_cloud_messaging.h"
#include "velm_config.h"
#include "velm_fcm_messaging.h"
#include "velm_google_auth.h"
#include "velm_nvram_pairings.h"

/// A push to one phone: its push token, NUL, its device id, NUL, two bytes of status, then the access
/// token's object up to a NUL, then the answer of the messaging service.

namespace {

json_ptr next_token;

} // namespace

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
        wait->handler(std::move(next_token), wait->context);
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
    config.pairings_limit = 2;
    config.bssids_list.reset(cJSON_CreateArray());
    std::string path = "/dev/shm/velm_fuzz_key_XXXXXX";
    const int file = mkstemp(path.data());
    FUZZ_REQUIRE(file >= 0);
    std::ofstream{path} << R"({"project_id":"velm-test"})";
    velm_config_copy_text(config.cloudmessaging_firebase_privatekey_path,
                          sizeof config.cloudmessaging_firebase_privatekey_path, path.c_str());
    velm_nvram_pairings_init(&config);
    velm_cloud_messaging_init(&config); // and the sender
    std::remove(path.c_str());
    fake_cloud_headers_are_clean({}); // what OpenSSL's random generator makes once
    return &config;
}

void pair(const std::string &push_token, const std::string &dev_id)
{
    fake_nvram = {};
    const json_ptr pairing = velm_nvram_pairings_create_empty_pairing();
    velm_nvram_pairings_update_pairing_field(pairing.get(), "status", "Valid");
    velm_nvram_pairings_update_pairing_field(pairing.get(), "dev_id", dev_id.c_str());
    velm_nvram_pairings_update_pairing_field(pairing.get(), "dev_type", "iOS");
    velm_nvram_pairings_update_pairing_field(pairing.get(), "push_token", push_token.c_str());
    velm_nvram_pairings_insert_pairing(pairing.get());
}

/// The push is JSON, and the phone's token stands in it as it was paired.
void is_clean(const http_client_request_data &request, const std::string &push_token)
{
    fake_cloud_headers_are_clean(request);
    FUZZ_REQUIRE(request.uri == "https://fcm.googleapis.com/v1/projects/velm-test/messages:send");
    const json_ptr body{cJSON_Parse(request.post_data.c_str())};
    const cJSON *const message = cJSON_GetObjectItemCaseSensitive(body.get(), "message");
    const char *const token =
        cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(message, "token"));
    FUZZ_REQUIRE(token != nullptr && push_token == token);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static std::time_t now = 1'750'000'000;
    static const velm_config *const config = make_config();
    FUZZ_REQUIRE(config != nullptr);
    fake_clock_set(--now); // set back: the token of an earlier run does not serve
    fuzz_input in{data, size};
    const std::string push_token{in.text_until('\0')};
    const std::string dev_id{in.text_until('\0')};
    const int code = static_cast<int>(in.word()) - 8;
    const std::string token{in.text_until('\0')};
    pair(push_token, dev_id);
    next_token.reset(cJSON_Parse(token.c_str()));
    const allocation_meter meter;
    velm_fcm_messaging_push_to_all(60, velm_push_data);
    fake_cloud_turn();
    FUZZ_REQUIRE(next_token == nullptr); // it was asked for
    FUZZ_REQUIRE(fake_cloud_requests.size() <= 1);
    if (!fake_cloud_requests.empty()) {
        is_clean(fake_cloud_requests.front().data, push_token);
        const std::string body{fuzz_text(in.rest())};
        fake_cloud_answer(code, body);
        // The phone stays paired, unless the service says that it does not know its token any more.
        const bool unregistered =
            code == 404 && velm_fcm_answer_is_about_the_token(body.c_str(), body.size(), nullptr);
        FUZZ_REQUIRE(velm_nvram_pairings_count_pairings() == (unregistered ? 0 : 1));
    } else {
        // A slot without a device id is free, whatever its status says.
        FUZZ_REQUIRE(velm_nvram_pairings_count_pairings() == (dev_id.empty() ? 0 : 1));
    }
    FUZZ_REQUIRE(meter.peak() <= 64 * size + 96 * 1024);
    return 0;
}
