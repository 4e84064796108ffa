// Before libevhtp, whose regular-expression header clashes with the system's.
#include <gtest/gtest.h>

#include "velm_request_assert_check.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "crypto/common_crypto.h"
#include "fakes/captured_log.h"
#include "fakes/paused_request.h"
#include "google/junk.h"
#include "request/input.h"
#include "request/record.h"
#include "velm_attestation_engine.h"
#include "velm_challenge_engine.h"

namespace {

/// What the stand-ins for the engines are told to answer, and what they saw.
struct engines_seen {
    std::set<std::string> pending_challenges{"c0ffee"};
    std::string signed_body;
    int ios_calls = 0;
    int android_calls = 0;
    std::string device_id;
    std::string assertion;
    int method = -1;
    velm_android_verify_assertion_callback android_result = nullptr;
    void *android_user_data = nullptr;
    std::optional<in_addr> asker;
};
engines_seen engines;

std::vector<int> reported;
std::vector<std::string> wiped;

bool is_digest_of_signed_body(std::span<const std::uint8_t> digest)
{
    const auto expected = common_crypto_sha256(request_bytes(engines.signed_body));
    return expected.has_value() && std::equal(digest.begin(), digest.end(), expected->begin());
}

void note_call(const char *device_id, std::span<const std::uint8_t> assertion)
{
    engines.device_id = device_id;
    engines.assertion.assign(assertion.begin(), assertion.end());
}

} // namespace

/// Stands in for OpenSSL's function, to see what is wiped.
extern "C" void OPENSSL_cleanse(void *memory, size_t size)
{
    wiped.emplace_back(static_cast<const char *>(memory), size);
    std::memset(memory, 0, size);
}

int velm_challenge_engine_consume_challenge(const char *challenge)
{
    return static_cast<int>(engines.pending_challenges.erase(challenge));
}

bool velm_attestation_engine_ios_verify_assertion(const char *device_id,
                                                  std::span<const std::uint8_t> assertion_object,
                                                  std::span<const std::uint8_t> client_data_hash)
{
    ++engines.ios_calls;
    note_call(device_id, assertion_object);
    return engines.assertion == "signature" && is_digest_of_signed_body(client_data_hash);
}

int velm_attestation_engine_android_verify_assertion(
    const char *device_id, std::span<const std::uint8_t> assertion_object,
    std::span<const std::uint8_t> message_digest, int method,
    velm_android_verify_assertion_callback result_cb, void *user_data)
{
    ++engines.android_calls;
    note_call(device_id, assertion_object);
    EXPECT_TRUE(is_digest_of_signed_body(message_digest));
    engines.method = method;
    engines.android_result = result_cb;
    engines.android_user_data = user_data;
    engines.asker = velm_google_asker::current();
    return 0;
}

void velm_request_preprocessor_continue(velm_request_preprocessor *, int break_code)
{
    reported.push_back(break_code);
}

namespace {

constexpr char body[] = R"({"auth":{"deviceId":"dev-1"},"location":{}})";
constexpr char signature[] = "c2lnbmF0dXJl"; // "signature"

class AssertCheck : public testing::Test {
  protected:
    AssertCheck()
    {
        engines = {};
        engines.signed_body = body;
        reported.clear();
        p_.request = request_.get();
        p_.client_device_id = "dev-1";
        p_.client_device_type = "iOS";
        p_.client_challenge = "c0ffee";
        p_.client_assertion = signature;
        set_method("remote");
        config_.app_android_integrity_enabled = true;
        velm_request_assert_check_init(&config_);
    }

    void set_method(const char *text)
    {
        std::snprintf(config_.app_android_integrity_method,
                      sizeof config_.app_android_integrity_method, "%s", text);
    }

    /// What the check reports; -1 while it has not.
    int run()
    {
        reported.clear();
        make_assert_check(&p_);
        EXPECT_TRUE(reported.empty()) << "the check ran inside the call";
        turn_test_loop();
        EXPECT_LE(reported.size(), 1U);
        return reported.empty() ? -1 : reported[0];
    }

    /// Runs an Android check up to the engine's answer.
    int run_android(bool success)
    {
        p_.client_device_type = "Android 14";
        EXPECT_EQ(run(), -1);
        engines.android_result(success, engines.android_user_data);
        return reported.size() == 1 ? reported[0] : -1;
    }

    captured_log log_;
    velm_config config_{};
    paused_request request_{body};
    velm_request_preprocessor p_;
};

TEST_F(AssertCheck, PassesWhenTheSignedBodyArrivedUnchanged)
{
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(engines.device_id, "dev-1");
    EXPECT_TRUE(log_.contains("TRACE velm_request_assert_check - make_assert_check [0x"));
    EXPECT_TRUE(log_.contains("] - start"));
    EXPECT_TRUE(log_.contains("] - finished"));
}

TEST_F(AssertCheck, AnIosRequestWhoseBodyWasChangedAfterSigningGives412)
{
    request_.replace_body(R"({"auth":{"deviceId":"dev-1"},"location":[]})");
    EXPECT_EQ(run(), VELM_BREAK_ASSERTION);
}

TEST_F(AssertCheck, ARequestWhoseChallengeWasAlreadyUsedGives424)
{
    engines.pending_challenges.clear();
    EXPECT_EQ(run(), VELM_BREAK_CHALLENGE);
    EXPECT_EQ(engines.ios_calls, 0);
}

TEST_F(AssertCheck, ASecondRequestWithTheSameAssertionAndChallengeGives424)
{
    EXPECT_EQ(run(), VELM_BREAK_NONE);
    EXPECT_EQ(run(), VELM_BREAK_CHALLENGE);
}

TEST_F(AssertCheck, ABadSignatureUsesTheChallengeUp)
{
    p_.client_assertion = "Zm9yZ2Vk"; // "forged"
    EXPECT_EQ(run(), VELM_BREAK_ASSERTION);
    p_.client_assertion = signature;
    EXPECT_EQ(run(), VELM_BREAK_CHALLENGE);
}

TEST_F(AssertCheck, AnEmptyBodyGives412AndLeavesTheChallenge)
{
    request_.replace_body("");
    EXPECT_EQ(run(), VELM_BREAK_ASSERTION);
    EXPECT_TRUE(engines.pending_challenges.contains("c0ffee"));
}

TEST_F(AssertCheck, AnAssertionThatIsNoBase64Gives412AndUsesTheChallengeUp)
{
    p_.client_assertion = "no base64!";
    EXPECT_EQ(run(), VELM_BREAK_ASSERTION);
    EXPECT_EQ(engines.ios_calls, 0);
    EXPECT_TRUE(engines.pending_challenges.empty());
}

TEST_F(AssertCheck, AnAndroidAssertionThatIsNoBase64Gives412EvenWithIntegrityOff)
{
    config_.app_android_integrity_enabled = false;
    p_.client_device_type = "Android";
    p_.client_assertion = "no base64!";
    EXPECT_EQ(run(), VELM_BREAK_ASSERTION);
    EXPECT_EQ(engines.android_calls, 0);
    EXPECT_FALSE(log_.contains("IGNORING"));
}

TEST_F(AssertCheck, AnUnknownDeviceTypeGives412)
{
    p_.client_device_type = "Windows";
    EXPECT_EQ(run(), VELM_BREAK_ASSERTION);
    EXPECT_EQ(engines.ios_calls + engines.android_calls, 0);
}

TEST_F(AssertCheck, KnowsDeviceTypesByPrefixInAnyCase)
{
    p_.client_device_type = "ios13";
    EXPECT_EQ(run(), VELM_BREAK_NONE);
    EXPECT_EQ(engines.ios_calls, 1);
}

TEST_F(AssertCheck, AnAndroidCheckWaitsForTheEngineAndPassesWithIt)
{
    EXPECT_EQ(run_android(true), VELM_BREAK_NONE);
    EXPECT_EQ(engines.device_id, "dev-1");
    EXPECT_EQ(engines.assertion, "signature");
    EXPECT_EQ(log_.count("] - finished"), 1);
}

TEST_F(AssertCheck, AnAndroidCheckIsGivenTheDigestOfTheBodyByteForByte)
{
    const std::string bytes{"{ \"auth\":\r\n{}\t}\0 \xff", 18};
    request_.replace_body(bytes);
    engines.signed_body = bytes;
    EXPECT_EQ(run_android(true), VELM_BREAK_NONE);
    EXPECT_EQ(engines.android_calls, 1);
}

TEST_F(AssertCheck, AnAndroidTokenIsJudgedForTheSakeOfThePhonesAddress)
{
    EXPECT_EQ(run_android(true), VELM_BREAK_NONE);
    ASSERT_TRUE(engines.asker.has_value());
    EXPECT_EQ(engines.asker->s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_FALSE(velm_google_asker::current().has_value());
}

TEST_F(AssertCheck, AnAndroidRequestWhoseChallengeWasAlreadyUsedGives424WithoutAskingTheEngine)
{
    engines.pending_challenges.clear();
    p_.client_device_type = "Android";
    EXPECT_EQ(run(), VELM_BREAK_CHALLENGE);
    EXPECT_EQ(engines.android_calls, 0);
}

TEST_F(AssertCheck, AFailingAndroidAssertionUsesTheChallengeUp)
{
    EXPECT_EQ(run_android(false), VELM_BREAK_ASSERTION);
    EXPECT_EQ(run(), VELM_BREAK_CHALLENGE);
}

TEST_F(AssertCheck, KnowsAndroidByPrefixInAnyCase)
{
    p_.client_device_type = "ANDROID-12";
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(engines.android_calls, 1);
    EXPECT_EQ(engines.ios_calls, 0);
}

TEST_F(AssertCheck, AnAndroidAssertionThatPassesIsNotLoggedAsIgnoredWithIntegrityOff)
{
    config_.app_android_integrity_enabled = false;
    EXPECT_EQ(run_android(true), VELM_BREAK_NONE);
    EXPECT_EQ(log_.count("ERROR"), 0);
}

TEST_F(AssertCheck, AFailingAndroidAssertionGives412WhenIntegrityIsOn)
{
    EXPECT_EQ(run_android(false), VELM_BREAK_ASSERTION);
    EXPECT_FALSE(log_.contains("IGNORING"));
}

TEST_F(AssertCheck, AFailingAndroidAssertionPassesWithAnErrorLineWhenIntegrityIsOff)
{
    config_.app_android_integrity_enabled = false;
    EXPECT_EQ(run_android(false), VELM_BREAK_NONE);
    EXPECT_TRUE(log_.has("ERROR velm_request_assert_check - android_verify_assertion_result - "
                         "IGNORING FAILED ASSERTION!"));
}

TEST_F(AssertCheck, AFailingIosAssertionIsNeverIgnored)
{
    config_.app_android_integrity_enabled = false;
    engines.signed_body = "another";
    EXPECT_EQ(run(), VELM_BREAK_ASSERTION);
}

// A pairing of App Attest

json_ptr find_iphone(const char *device_id)
{
    json_ptr pairing{std::strcmp(device_id, "dev-1") == 0 ? cJSON_CreateObject() : nullptr};
    if (pairing != nullptr) {
        cJSON_AddStringToObject(pairing.get(), "attestation_key", "key");
    }
    return pairing;
}

class IphonesPairing : public AssertCheck {
  protected:
    IphonesPairing()
    {
        velm_request_proof_set_finder(find_iphone);
    }
    ~IphonesPairing() override
    {
        velm_request_proof_set_finder(nullptr);
    }
};

TEST_F(IphonesPairing, IsProvedByNoOtherTypeWhateverTheSettings)
{
    for (const char *method : {"local", "remote"}) {
        for (const bool enabled : {true, false}) {
            for (const char *type : {"Android", "ANDROID-12", "Windows"}) {
                set_method(method);
                config_.app_android_integrity_enabled = enabled;
                p_.client_device_type = type;
                engines.pending_challenges = {"c0ffee"};
                EXPECT_EQ(run(), VELM_BREAK_ASSERTION) << method << enabled << type;
                EXPECT_TRUE(engines.pending_challenges.empty()) << "the challenge is used up";
            }
        }
    }
    EXPECT_EQ(engines.android_calls, 0);
    EXPECT_FALSE(log_.contains("IGNORING"));
}

TEST_F(IphonesPairing, IsProvedByItsKeyAndNoMatterToAnotherPhone)
{
    EXPECT_EQ(run(), VELM_BREAK_NONE);
    EXPECT_EQ(p_.proof->attestation_key, "key");
    engines.pending_challenges = {"c0ffee"};
    p_.client_device_id = "dev-2";
    EXPECT_EQ(run_android(true), VELM_BREAK_NONE);
}

struct method_case {
    const char *name, *text;
    int method;
};

class AndroidMethod : public AssertCheck, public testing::WithParamInterface<method_case> {};

TEST_P(AndroidMethod, IsRemoteExactlyForThatWordInAnyCase)
{
    set_method(GetParam().text);
    run_android(true);
    EXPECT_EQ(engines.method, GetParam().method);
}

INSTANTIATE_TEST_SUITE_P(
    Settings, AndroidMethod,
    testing::Values(method_case{"Remote", "remote", velm_android_method_remote},
                    method_case{"UpperCase", "REMOTE", velm_android_method_remote},
                    method_case{"Local", "local", velm_android_method_local},
                    method_case{"Longer", "remotely", velm_android_method_local},
                    method_case{"Shorter", "remot", velm_android_method_local},
                    method_case{"Empty", "", velm_android_method_local}),
    [](const auto &row) { return std::string{row.param.name}; });

// The copy of the body, in which a password is

struct wiping_case {
    const char *name;
    void (*bend)(velm_request_preprocessor &p);
};
class BodyCopy : public AssertCheck, public testing::WithParamInterface<wiping_case> {};

TEST_P(BodyCopy, IsWipedHoweverTheCheckEnds)
{
    GetParam().bend(p_);
    wiped.clear();
    run();
    EXPECT_EQ(std::count(wiped.begin(), wiped.end(), body), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Ends, BodyCopy,
    testing::Values(
        wiping_case{"Passing", [](velm_request_preprocessor &) {}},
        wiping_case{"Forged",
                    [](velm_request_preprocessor &p) { p.client_assertion = "Zm9yZ2Vk"; }},
        wiping_case{"NoBase64",
                    [](velm_request_preprocessor &p) { p.client_assertion = "no base64!"; }},
        wiping_case{"UsedChallenge",
                    [](velm_request_preprocessor &) { engines.pending_challenges.clear(); }},
        wiping_case{"UnknownDevice",
                    [](velm_request_preprocessor &p) { p.client_device_type = "Windows"; }},
        wiping_case{"AndroidThatWaits",
                    [](velm_request_preprocessor &p) { p.client_device_type = "Android"; }}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(AssertCheck, DoesNotBeginWhenTheRequestHasGone)
{
    make_assert_check(&p_);
    p_.request = nullptr;
    p_.request_gone = true;
    turn_test_loop();
    EXPECT_EQ(reported, std::vector{0}) << "the machine goes on, and ends by itself";
    EXPECT_TRUE(engines.pending_challenges.contains("c0ffee"));
    EXPECT_EQ(engines.ios_calls, 0);
}

TEST_F(AssertCheck, ReportsTheEnginesAnswerAlsoAfterTheRequestHasGone)
{
    p_.client_device_type = "Android";
    EXPECT_EQ(run(), -1);
    request_.free_connection();
    p_.request = nullptr;
    p_.request_gone = true;
    engines.android_result(false, engines.android_user_data);
    EXPECT_EQ(reported, std::vector{int{VELM_BREAK_ASSERTION}});
}

TEST_F(AssertCheck, OfARecordThatWasNotFilledEndsTheProcess)
{
    // A forked child would share this process's loop.
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto check = [this] {
        make_assert_check(&p_);
        turn_test_loop();
    };
    p_.request = nullptr;
    EXPECT_DEATH(check(), "make_assert_check: p->request is null: null reference");
    p_.client_challenge = nullptr;
    EXPECT_DEATH(check(), "make_assert_check: p->client_challenge is null: null reference");
    p_.client_assertion = nullptr;
    EXPECT_DEATH(check(), "make_assert_check: p->client_assertion is null: null reference");
    p_.client_device_id = nullptr;
    EXPECT_DEATH(check(), "make_assert_check: p->client_device_id is null: null reference");
}

TEST_F(AssertCheck, InitLogsItsName)
{
    EXPECT_TRUE(log_.has("TRACE velm_request_assert_check - velm_request_assert_check_init"));
}

} // namespace
