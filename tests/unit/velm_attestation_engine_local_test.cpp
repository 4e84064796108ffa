#include <gtest/gtest.h>

#include <openssl/objects.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "async/common_async.h"
#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "fakes/integrity_token_maker.h"
#include "fakes/no_google_integrity.h"
#include "fakes/temporary_directory.h"
#include "handles/libevent.h"
#include "story/reason.h"
#include "velm_attestation_engine.h"
#include "velm_nvram_pairings.h"

json_ptr velm_nvram_pairings_select_pairing(const char *)
{
    return nullptr;
}

// The engine's judgement of an Android token on the device: real keys, tokens and loop.

namespace {

using lines = std::vector<std::string>;

constexpr char package[] = "com.norvale.afc";
constexpr std::time_t now = 1'750'000'000;
constexpr char worker[] = "velm_attestation_engine - android_verify_assertion_locally - ";

struct android_report {
    int calls = 0;
    bool success = false;
    const char *reason = nullptr; // for the story
    void *user_data = nullptr;
    const captured_log *log = nullptr;
    std::string last_line; // of that log when the report came
};

template <std::size_t Size>
void set_text(char (&field)[Size], const std::string &text)
{
    ASSERT_LT(text.size(), Size);
    std::snprintf(field, Size, "%s", text.c_str());
}

std::string verdict_for(const test_bytes &digest, const std::string &package_name = package)
{
    return R"({"requestDetails":{"requestPackageName":")" + package_name + R"(","nonce":")" +
           base64url_make(digest) + R"(","timestampMillis":")" + std::to_string(now * 1000LL) +
           R"("},"appIntegrity":{"appRecognitionVerdict":"PLAY_RECOGNIZED"},)"
           R"("deviceIntegrity":{"deviceRecognitionVerdict":["MEETS_BASIC_INTEGRITY",)"
           R"("MEETS_DEVICE_INTEGRITY","MEETS_STRONG_INTEGRITY"]}})";
}

android_report reported;

void note(bool success, void *user_data)
{
    ++reported.calls;
    reported.success = success;
    reported.reason = story_reason_take().text;
    reported.user_data = user_data;
    if (reported.log != nullptr) {
        reported.last_line = reported.log->lines().back();
    }
}

// Outlives the module's events, as in the daemon.
event_base *const base = event_base_new();

void turn_the_loop()
{
    for (int turn = 0; turn < 5; ++turn) {
        event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
    }
}

class AndroidLocally : public testing::Test {
  protected:
    AndroidLocally()
    {
        fake_clock_set(now);
        common_async_set_event_base(base);
        common_async_init();
        reported = {};
        set_text(config.app_android_package_name, package);
        load_keys(jwk_of(secret), jwk_of(signer.get()));
    }
    ~AndroidLocally() override
    {
        fake_clock_reset();
    }

    void load_keys(const std::string &decryption, const std::string &verification)
    {
        set_text(config.app_android_integrity_d_key_path, files.write("d.jwk", decryption));
        set_text(config.app_android_integrity_v_key_path, files.write("v.jwk", verification));
        velm_attestation_engine_init(&config);
        log.clear();
    }
    std::string token_of(const std::string &payload) const
    {
        return jwe_make({secret}, jws_make(signer.get(), payload)).compact();
    }
    void ask(const std::string &token)
    {
        const test_bytes bytes = bytes_of(token);
        EXPECT_EQ(velm_attestation_engine_android_verify_assertion(
                      "a phone", bytes, digest, velm_android_method_local, note, &reported),
                  0);
    }
    /// The outcome, reported once.
    bool passes(const std::string &token)
    {
        log.clear();
        reported = {};
        ask(token);
        turn_the_loop();
        EXPECT_EQ(reported.calls, 1);
        EXPECT_EQ(reported.user_data, &reported);
        return reported.success;
    }

    static inline const evp_pkey_ptr signer = ec_key_make(NID_X9_62_prime256v1);
    test_bytes secret = test_bytes(32, 0x21);
    test_bytes digest = sha256_of(bytes_of("body"));
    temporary_directory files;
    velm_config config{};
    captured_log log;
};

TEST_F(AndroidLocally, AGoodTokenPassesWithEveryStepInTheLog)
{
    const std::string payload = verdict_for(digest);
    EXPECT_TRUE(passes(token_of(payload)));
    const std::string judge = "TRACE velm_attestation_engine - android_interpret_verdict - ";
    EXPECT_EQ(log.lines(), (lines{std::string{"TRACE "} + worker + "integrity verdict: " + payload,
                                  judge + "nonce: " + base64url_make(digest), judge + "success",
                                  std::string{"TRACE "} + worker + "success",
                                  std::string{"TRACE "} + worker + "finished"}));
}

TEST_F(AndroidLocally, ATokenOfAnotherJoseLibraryPasses)
{
    load_keys(test_data_text("play_integrity/dec.jwk"), test_data_text("play_integrity/ver.jwk"));
    digest = sha256_of({});
    EXPECT_TRUE(passes(test_data_text("play_integrity/token.jwe")));
}

TEST_F(AndroidLocally, NothingIsReportedBeforeTheLoopTurns)
{
    ask(token_of(verdict_for(digest)));
    digest = {}; // the worker has its own copies
    EXPECT_EQ(reported.calls, 0);
    turn_the_loop();
    EXPECT_EQ(reported.calls, 1);
    EXPECT_TRUE(reported.success);
}

TEST_F(AndroidLocally, AVerdictThatIsRefusedIsAFailure)
{
    EXPECT_FALSE(passes(token_of(verdict_for(digest, "com.example.other"))));
    EXPECT_TRUE(log.contains("android_interpret_verdict - invalid requestPackageName"));
    const lines all = log.lines();
    ASSERT_GE(all.size(), 2U);
    EXPECT_EQ(all[all.size() - 2], std::string{"ERROR "} + worker + "failure");
    EXPECT_EQ(all.back(), std::string{"TRACE "} + worker + "finished");
}

TEST_F(AndroidLocally, ATokenForAnotherRequestIsRefused)
{
    EXPECT_FALSE(passes(token_of(verdict_for(sha256_of(bytes_of("another body"))))));
    EXPECT_TRUE(log.contains("android_interpret_verdict - invalid nonce (cmp)"));
}

TEST_F(AndroidLocally, ATokenThatCannotBeOpenedIsRefusedWithOneLine)
{
    EXPECT_FALSE(passes("token"));
    EXPECT_EQ(log.count("ERROR"), 1);
    EXPECT_TRUE(log.contains(std::string{"ERROR "} + worker + "cjose_jwe_import failed: "));
    EXPECT_EQ(log.lines().back(), std::string{"TRACE "} + worker + "finished");
}

TEST_F(AndroidLocally, TheEndIsLoggedBeforeItIsReported)
{
    reported.log = &log;
    ask(token_of(verdict_for(digest)));
    turn_the_loop();
    EXPECT_EQ(reported.last_line, std::string{"TRACE "} + worker + "finished");
}

class UnreadablePayload : public AndroidLocally, public testing::WithParamInterface<std::string> {};

TEST_P(UnreadablePayload, IsRefused)
{
    EXPECT_FALSE(passes(token_of(GetParam())));
    EXPECT_TRUE(log.has(std::string{"ERROR "} + worker + "cannot parse integrity verdict"));
    EXPECT_EQ(log.count("ERROR"), 1);
    EXPECT_TRUE(log.contains(std::string{"TRACE "} + worker + "integrity verdict: "));
    EXPECT_EQ(log.lines().back(), std::string{"TRACE "} + worker + "finished");
}

INSTANTIATE_TEST_SUITE_P(Payloads, UnreadablePayload,
                         testing::Values(std::string{"no JSON"}, std::string{"{"},
                                         std::string{R"({"a":1} trailing)"}, std::string{"{}\0", 3},
                                         std::string{"{\"a\":\"\0\"}", 9},
                                         std::string{R"({"a":"x\u0000y"})"},
                                         std::string(2000, '[')),
                         [](const auto &row) { return std::to_string(row.index); });

TEST_F(AndroidLocally, AnEscapedBackslashBeforeU0000IsText)
{
    EXPECT_FALSE(passes(token_of(R"({"a":"\\u0000"})")));
    EXPECT_FALSE(log.has(std::string{"ERROR "} + worker + "cannot parse integrity verdict"));
    EXPECT_TRUE(log.contains("no requestDetails"));
}

TEST_F(AndroidLocally, APackageNameCutByANulDoesNotPassForOurs)
{
    EXPECT_FALSE(passes(token_of(verdict_for(digest, std::string{package} + "\\u0000x"))));
    EXPECT_TRUE(log.has(std::string{"ERROR "} + worker + "cannot parse integrity verdict"));
}

TEST_F(AndroidLocally, APayloadThatIsNoObjectIsRefused)
{
    for (const char *payload : {"[]", "5", "null", R"("text")", "{}"}) {
        EXPECT_FALSE(passes(token_of(payload))) << payload;
        EXPECT_TRUE(log.contains("android_interpret_verdict - no requestDetails")) << payload;
    }
}

TEST_F(AndroidLocally, AReloadReplacesTheKeys)
{
    const std::string token = token_of(verdict_for(digest));
    load_keys(jwk_of(test_bytes(32, 0x22)), jwk_of(signer.get()));
    EXPECT_FALSE(passes(token));
    EXPECT_TRUE(log.contains(std::string{"ERROR "} + worker + "cjose_jwe_decrypt failed: "));
    load_keys(jwk_of(secret), jwk_of(signer.get()));
    EXPECT_TRUE(passes(token));
}

TEST_F(AndroidLocally, AReloadWithBadKeyFilesKeepsTheKeys)
{
    load_keys("{", "{");
    EXPECT_TRUE(passes(token_of(verdict_for(digest))));
}

TEST_F(AndroidLocally, KeyFilesThatAreJsonButNoKeysRefuseEveryToken)
{
    load_keys("{}", "{}");
    EXPECT_FALSE(passes(token_of(verdict_for(digest))));
    EXPECT_TRUE(log.contains(std::string{"ERROR "} + worker + "cjose_jwk_import failed: "));
}

TEST(AndroidLocallyWithoutKeyFiles, EveryTokenIsRefusedAndReported)
{
    // A process of its own, since keys once loaded stay.
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto ask_at_once = [] {
        const captured_log log;
        common_async_set_event_base(base);
        common_async_init();
        const velm_config config{};
        velm_attestation_engine_init(&config);
        velm_attestation_engine_android_verify_assertion(
            "a phone", bytes_of("token"), test_bytes(32), velm_android_method_local, note, nullptr);
        turn_the_loop();
        std::_Exit(reported.calls == 1 && !reported.success ? 0 : 1);
    };
    EXPECT_EXIT(ask_at_once(), testing::ExitedWithCode(0), "locally - no decryption key");
}

TEST_F(AndroidLocally, WhatAnEarlierRequestLeftBehindIsNotTheReason)
{
    story_reason_set("the access token was refused", 401);
    EXPECT_FALSE(passes(token_of("{}")));
    EXPECT_EQ(reported.reason, nullptr);
    story_reason_set("the access token was refused", 401);
    EXPECT_FALSE(passes(token_of(verdict_for(digest, "com.other"))));
    EXPECT_STREQ(reported.reason, "it is of another app than app.android.package_name");
}

TEST_F(AndroidLocally, AThousandHostileTokensAreEachAnsweredOnce)
{
    const std::string good = token_of(verdict_for(digest));
    for (std::size_t i = 0; i < 1000; ++i) {
        std::string token = good;
        const std::size_t at = i * 7919 % token.size();
        if (i % 3 == 0) {
            token.resize(at);
            token.push_back('.');
        } else {
            token[at] = static_cast<char>(token[at] ^ (1 << (i % 8)));
        }
        // The last character of a part may carry bits that decode to nothing.
        const bool passed = passes(token);
        EXPECT_TRUE(!passed || (at + 1 == token.size() || token[at + 1] == '.')) << i;
    }
}

} // namespace
