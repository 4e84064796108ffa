#include <arpa/inet.h>
#include <event2/event.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "android_validation/verdict.h"
#include "async/common_async.h"
#include "fakes/captured_log.h"
#include "google/junk.h"
#include "velm_attestation_engine.h"
#include "velm_google_integrity.h"
#include "velm_nvram_pairings.h"

/// The engine over a client of Google's service and a judge of verdicts that the test plays.

namespace {

using lines = std::vector<std::string>;
using bytes = std::vector<std::uint8_t>;

struct asked_verdict {
    bytes token;
    velm_google_integrity_callback completion;
    void *context;
    std::optional<in_addr> asker;
};
std::vector<asked_verdict> asked;
lines initialised;

struct judged_verdict {
    int calls = 0;
    bool outcome = true;
    bytes digest;
    const cJSON *verdict = nullptr;
    std::string package_name;
};
judged_verdict judge;

struct android_report {
    int calls = 0;
    bool success = false;
    void *user_data = nullptr;
    const captured_log *log = nullptr;
    std::string last_line; // of that log when the report came
};
android_report reported;

} // namespace

void velm_google_integrity_init(const velm_config *config)
{
    initialised.emplace_back(config->app_android_package_name);
}

void velm_google_integrity_get_verdict(std::span<const std::uint8_t> token,
                                       velm_google_integrity_callback completion, void *context)
{
    asked.push_back(
        {{token.begin(), token.end()}, completion, context, velm_google_asker::current()});
}

json_ptr velm_nvram_pairings_select_pairing(const char *)
{
    return nullptr; // no iOS phone takes part
}

bool android_interpret_verdict(const android_verify_assertion_input &input, const cJSON *verdict,
                               const char *package_name)
{
    ++judge.calls;
    judge.digest = input.message_digest_buf;
    judge.verdict = verdict;
    judge.package_name = package_name;
    return judge.outcome;
}

namespace {

class RemoteAndroid : public testing::Test {
  protected:
    RemoteAndroid()
    {
        asked.clear();
        initialised.clear();
        judge = {};
        reported = {};
        common_async_set_event_base(base);
        common_async_init();
        velm_config_copy_text(config.app_android_package_name,
                              sizeof config.app_android_package_name, "com.norvale.afc");
        velm_attestation_engine_init(&config);
        log.clear();
    }

    static void note(bool success, void *user_data)
    {
        ++reported.calls;
        reported.success = success;
        reported.user_data = user_data;
        if (reported.log != nullptr) {
            reported.last_line = reported.log->lines().back();
        }
    }
    void verify()
    {
        velm_attestation_engine_android_verify_assertion("device", token, digest,
                                                         velm_android_method_remote, note, &config);
        for (int turn = 0; turn < 3; ++turn) {
            event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
        }
    }
    static void answer(const cJSON *verdict)
    {
        ASSERT_EQ(asked.size(), 1U);
        asked[0].completion(verdict, asked[0].context);
    }

    // Outlives the module's events, as in the daemon.
    static inline event_base *const base = event_base_new();
    velm_config config{};
    bytes token{'a', '.', 'b'};
    bytes digest = bytes(32, 7);
    json_ptr verdict{cJSON_CreateObject()};
    captured_log log;
};

TEST_F(RemoteAndroid, GoogleIsAskedForTheVerdictOfTheToken)
{
    verify();
    ASSERT_EQ(asked.size(), 1U);
    EXPECT_EQ(asked[0].token, token);
    EXPECT_EQ(reported.calls, 0) << "the answer has not come yet";
    answer(nullptr);
}

TEST_F(RemoteAndroid, GoogleIsAskedForTheSakeOfTheAddressThatTheTokenCameFrom)
{
    {
        const velm_google_asker asking{in_addr{inet_addr("192.168.1.5")}};
        velm_attestation_engine_android_verify_assertion("device", token, digest,
                                                         velm_android_method_remote, note, &config);
    }
    verify(); // nobody's
    ASSERT_EQ(asked.size(), 2U);
    ASSERT_TRUE(asked[0].asker.has_value());
    EXPECT_EQ(asked[0].asker->s_addr, inet_addr("192.168.1.5"));
    EXPECT_FALSE(asked[1].asker.has_value());
    EXPECT_FALSE(velm_google_asker::current().has_value());
    for (const asked_verdict &one : asked) {
        one.completion(nullptr, one.context);
    }
}

TEST_F(RemoteAndroid, AVerdictThatPassesIsASuccess)
{
    verify();
    answer(verdict.get());
    EXPECT_EQ(reported.calls, 1);
    EXPECT_TRUE(reported.success);
    EXPECT_EQ(reported.user_data, &config);
    EXPECT_EQ(log.lines(),
              (lines{"TRACE velm_attestation_engine - android_verify_assertion_remotely - start",
                     "TRACE velm_attestation_engine - google_integrity_result - start",
                     "TRACE velm_attestation_engine - google_integrity_result - finished"}));
}

TEST_F(RemoteAndroid, TheEndIsLoggedBeforeItIsReported)
{
    reported.log = &log;
    verify();
    answer(verdict.get());
    EXPECT_EQ(reported.last_line,
              "TRACE velm_attestation_engine - google_integrity_result - finished");
}

TEST_F(RemoteAndroid, TheVerdictIsJudgedByTheDigestAndTheConfiguredPackage)
{
    verify();
    answer(verdict.get());
    EXPECT_EQ(judge.calls, 1);
    EXPECT_EQ(judge.digest, digest);
    EXPECT_EQ(judge.verdict, verdict.get());
    EXPECT_EQ(judge.package_name, "com.norvale.afc");
}

TEST_F(RemoteAndroid, AVerdictThatDoesNotPassIsAFailure)
{
    judge.outcome = false;
    verify();
    answer(verdict.get());
    EXPECT_EQ(reported.calls, 1);
    EXPECT_FALSE(reported.success);
}

TEST_F(RemoteAndroid, NoVerdictIsAFailureThatNobodyJudges)
{
    verify();
    answer(nullptr);
    EXPECT_EQ(reported.calls, 1);
    EXPECT_FALSE(reported.success);
    EXPECT_EQ(judge.calls, 0);
}

TEST_F(RemoteAndroid, AnAnswerAfterAReloadIsJudgedByThePackageOfTheDay)
{
    verify();
    velm_config_copy_text(config.app_android_package_name, sizeof config.app_android_package_name,
                          "com.norvale.other");
    velm_attestation_engine_init(&config);
    answer(verdict.get());
    EXPECT_EQ(reported.calls, 1);
    EXPECT_EQ(judge.package_name, "com.norvale.other");
}

TEST_F(RemoteAndroid, TheClientIsInitialisedWhateverTheKeyFilesAreLike)
{
    EXPECT_EQ(initialised, lines{"com.norvale.afc"}) << "there are none";
    EXPECT_EQ(asked.size(), 0U);
}

} // namespace
