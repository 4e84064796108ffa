#include "velm_fcm_messaging.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "fakes/fake_google.h"
#include "fakes/fake_nvram.h"
#include "story/reason.h"
#include "story/story.h"
#include "story/view.h"
#include "velm_cloud_messaging.h"
#include "velm_nvram_pairings.h"

namespace {

constexpr char error_line[] = "ERROR velm_fcm_messaging - ";

class Fcm : public testing::Test {
  protected:
    Fcm()
    {
        fake_nvram = {};
        fake_clock_set(1700000000);
        start_result = 0;
        config.pairings_limit = 10;
        velm_nvram_pairings_init(&config);
        velm_config_copy_text(config.cloudmessaging_firebase_privatekey_path,
                              sizeof config.cloudmessaging_firebase_privatekey_path,
                              key_path.c_str());
        write_key(R"({"project_id":"velm-test","client_email":"a@b"})");
        velm_cloud_messaging_init(&config); // initialises the sender too
    }
    ~Fcm() override
    {
        // What a test left in flight ends here, as the loop would end it.
        while (!actions.empty() || !sent.empty() || !token_requests.empty()) {
            if (!token_requests.empty()) {
                answer_token(nullptr);
            } else if (!actions.empty()) {
                run_actions();
            } else {
                answer(200);
            }
        }
        unlink(key_path.c_str());
        fake_clock_reset();
    }

    void write_key(const std::string &text) const
    {
        std::ofstream{key_path} << text;
    }

    static void pair_slot(int slot, const std::string &dev_id, const std::string &token)
    {
        const std::string prefix = "zelkad_pairing_" + std::to_string(slot) + "_";
        fake_nvram.values[prefix + "status"] = "Valid";
        fake_nvram.values[prefix + "dev_id"] = dev_id;
        fake_nvram.values[prefix + "dev_type"] = "iOS";
        fake_nvram.values[prefix + "push_token"] = token;
    }

    /// Runs what is queued now; what that queues stays. Returns the delays, in order.
    static std::vector<long> run_actions()
    {
        std::vector<scheduled_action> now;
        now.swap(actions);
        std::vector<long> delays;
        for (const auto &action : now) {
            delays.push_back(action.delay_s);
            action.callback(action.user_data, 0, nullptr);
        }
        return delays;
    }

    /// What is due first; the rest waits on.
    static void run_first_action()
    {
        ASSERT_FALSE(actions.empty());
        const scheduled_action first = actions.front();
        actions.erase(actions.begin());
        first.callback(first.user_data, 0, nullptr);
    }

    static void answer_token(const char *json)
    {
        ASSERT_FALSE(token_requests.empty());
        const token_request request = token_requests.front();
        token_requests.erase(token_requests.begin());
        request.handler(json_ptr{json == nullptr ? nullptr : cJSON_Parse(json)}, request.context);
    }

    static void answer(int code, const std::string &body = "{}")
    {
        ASSERT_FALSE(sent.empty());
        const sent_request request = sent.front();
        sent.erase(sent.begin());
        request.handler(code, nullptr, body.c_str(), body.size(), request.argument);
    }

    /// From the request to the sends, with a token that serves.
    static void push()
    {
        velm_fcm_messaging_push_to_all(30, 0);
        if (!token_requests.empty()) {
            answer_token(R"({"access_token":"ya29.x","valid_to":1700003599})");
        }
        run_actions();
        run_actions();
    }

    const std::string key_path =
        testing::TempDir() + "velm_fcm_key_" + std::to_string(getpid()) + ".json";
    velm_config config{};
};

TEST_F(Fcm, ThreePairingsInSlotsZeroFourAndSevenAreSentOneAfterAnother)
{
    pair_slot(0, "a", "ta");
    pair_slot(4, "b", "tb");
    pair_slot(7, "c", "tc");
    velm_fcm_messaging_push_to_all(30, 0);
    answer_token(R"({"access_token":"x","valid_to":1700003599})");
    run_actions();
    constexpr long gap = velm_fcm_push_gap_s;
    EXPECT_EQ(run_actions(), (std::vector<long>{gap, 2 * gap, 3 * gap}));
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_NE(sent[1].data.post_data.find(R"("token":"tb")"), std::string::npos);
}

TEST_F(Fcm, TheRequestHasItsAddressBearerTokenAndTimeout)
{
    pair_slot(0, "a", "ta");
    push();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].data.uri, "https://fcm.googleapis.com/v1/projects/velm-test/messages:send");
    ASSERT_EQ(sent[0].data.headers.size(), 1U);
    EXPECT_EQ(sent[0].data.headers[0].name, "Authorization");
    EXPECT_EQ(sent[0].data.headers[0].value, "Bearer ya29.x");
    EXPECT_EQ(sent[0].data.timeout_s, 10);
    EXPECT_FALSE(sent[0].data.skip_server_verification);
    EXPECT_FALSE(sent[0].data.skip_hostname_verification);
}

TEST_F(Fcm, AnExpiredTokenTriggersExactlyOneTokenRequestBeforeTheSends)
{
    pair_slot(0, "a", "ta");
    pair_slot(1, "b", "tb");
    push();
    fake_clock_set(1700003598);
    velm_fcm_messaging_push_to_all(30, 0);
    EXPECT_TRUE(token_requests.empty()) << "one second is left";
    run_actions();
    run_actions();
    const std::size_t sent_before = sent.size();
    fake_clock_set(1700003599);
    velm_fcm_messaging_push_to_all(30, 0);
    ASSERT_EQ(token_requests.size(), 1U);
    EXPECT_TRUE(actions.empty()) << "nothing may be sent before the token has come";
    answer_token(R"({"access_token":"ya29.y","valid_to":1700007199})");
    run_actions();
    run_actions();
    ASSERT_EQ(sent.size(), sent_before + 2);
    EXPECT_EQ(sent.back().data.headers[0].value, "Bearer ya29.y");
    EXPECT_TRUE(token_requests.empty());
}

TEST_F(Fcm, TheTokenIsAskedForWithTheKeyAndTheMessagingScope)
{
    velm_fcm_messaging_push_to_all(30, 0);
    ASSERT_EQ(token_requests.size(), 1U);
    EXPECT_EQ(token_requests[0].project_id, "velm-test");
    EXPECT_EQ(token_requests[0].scope, "https://www.googleapis.com/auth/firebase.messaging");
}

TEST_F(Fcm, EveryStepOfASendIsLogged)
{
    const captured_log log;
    const std::string trace = "TRACE velm_fcm_messaging - ";
    pair_slot(0, "a", "ta");
    push();
    EXPECT_TRUE(log.has(trace + "prepare_to_send_push - 10"));
    EXPECT_TRUE(log.has(trace + "send_push - [a,iOS,ta]"));
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_TRUE(log.has(trace + "send_push - " + sent[0].data.post_data));
    std::array<char, 40> context{};
    std::snprintf(context.data(), context.size(), "[%p]", sent[0].argument);
    answer(200, "{\"name\":1}");
    EXPECT_TRUE(log.has(std::string{"DEBUG velm_fcm_messaging - send_push_handler "} +
                        context.data() + " - code: 200"));
    EXPECT_TRUE(log.has(trace + "send_push_handler " + context.data() + " - body: {\"name\":1}"));
}

TEST_F(Fcm, AnAnswerWithoutABodyIsLoggedByItsCodeAlone)
{
    const captured_log log;
    pair_slot(0, "a", "ta");
    push();
    answer(200, "");
    EXPECT_TRUE(log.contains("] - code: 200"));
    EXPECT_FALSE(log.contains("] - body: "));
}

TEST_F(Fcm, ATokenWithoutALifetimeServesOnce)
{
    pair_slot(0, "a", "ta");
    velm_fcm_messaging_push_to_all(30, 0);
    answer_token(R"({"access_token":"x","valid_to":1700000000})");
    run_actions();
    run_actions();
    EXPECT_EQ(sent.size(), 1U);
    velm_fcm_messaging_push_to_all(30, 0);
    EXPECT_EQ(token_requests.size(), 1U);
}

TEST_F(Fcm, WithoutATokenNothingIsSentAndTheLogSaysSo)
{
    const captured_log log;
    pair_slot(0, "a", "ta");
    velm_fcm_messaging_push_to_all(30, 0);
    answer_token(nullptr);
    EXPECT_TRUE(actions.empty());
    EXPECT_TRUE(log.has(std::string{error_line} + "access_token_received - missing access_token"));
}

TEST_F(Fcm, ATokenAskedForBeforeAReloadIsDroppedAndTheLogSaysSo)
{
    const captured_log log;
    pair_slot(0, "a", "ta");
    velm_fcm_messaging_push_to_all(30, 0);
    velm_fcm_messaging_init(&config);
    answer_token(R"({"access_token":"old","valid_to":1700003599})");
    EXPECT_TRUE(actions.empty());
    EXPECT_TRUE(log.has(std::string{error_line} + "access_token_received - missing access_token"));
    velm_fcm_messaging_push_to_all(30, 0);
    EXPECT_EQ(token_requests.size(), 1U) << "the old key's token is not held";
}

TEST_F(Fcm, PushesAskedForWhileATokenIsOnItsWayShareIt)
{
    pair_slot(0, "a", "ta");
    velm_fcm_messaging_push_to_all(30, 0);
    velm_fcm_messaging_push_to_all(30, 1);
    EXPECT_EQ(token_requests.size(), 1U);
    answer_token(R"({"access_token":"x","valid_to":1700003599})");
    EXPECT_EQ(actions.size(), 2U);
}

TEST_F(Fcm, StatusNotFoundUnpairsThePhoneAndCommits)
{
    const captured_log log;
    pair_slot(0, "a", "ta");
    push();
    answer(404);
    EXPECT_EQ(velm_nvram_pairings_count_pairings(), 0);
    EXPECT_EQ(fake_nvram.commits, 1);
    EXPECT_TRUE(log.has("INFO velm_fcm_messaging - send_push_handler - [a,iOS,ta,404] - unpaired "
                        "(unregistered token)"));
}

TEST_F(Fcm, StatusNotFoundForAPhoneUnpairedMeanwhileOnlyLogs)
{
    const captured_log log;
    pair_slot(0, "a", "ta");
    push();
    velm_nvram_pairings_delete_pairing("a");
    const int writes = fake_nvram.writes;
    answer(404);
    EXPECT_EQ(fake_nvram.writes, writes);
    EXPECT_EQ(fake_nvram.commits, 0);
    EXPECT_TRUE(log.contains("[a,iOS,ta,404] - unpaired (unregistered token)"));
}

TEST_F(Fcm, StatusNotFoundForAnEarlierTokenLeavesThePhonePairedThatHasPairedAgain)
{
    const captured_log log;
    pair_slot(0, "a", "ta");
    push();
    velm_nvram_pairings_delete_pairing("a");
    pair_slot(0, "a", "tb");
    const int writes = fake_nvram.writes;
    answer(404);
    EXPECT_EQ(velm_nvram_pairings_count_pairings(), 1);
    EXPECT_EQ(fake_nvram.writes, writes);
    EXPECT_EQ(fake_nvram.commits, 0);
    EXPECT_TRUE(
        log.has("INFO velm_fcm_messaging - send_push_handler - [a,iOS,ta,404] - stays paired "
                "(by another token)"));
    EXPECT_FALSE(log.contains("unpaired"));
}

TEST_F(Fcm, StatusNotFoundForAPhoneThatHasPairedAgainByTheSameTokenUnpairsItWhereverItIs)
{
    pair_slot(0, "a", "ta");
    pair_slot(1, "b", "tb");
    push();
    velm_nvram_pairings_delete_pairing("a");
    pair_slot(2, "a", "ta");
    answer(404);
    answer(200);
    EXPECT_EQ(velm_nvram_pairings_pairing_exists("a"), 0);
    EXPECT_EQ(velm_nvram_pairings_count_pairings(), 1);
}

TEST_F(Fcm, APageUnpairsNobodyAndIsOneWarning)
{
    const captured_log log;
    pair_slot(0, "a", "ta");
    push();
    answer(404, "<!DOCTYPE html>\n<html lang=en><title>Error 404 (Not Found)!!1</title>");
    EXPECT_EQ(velm_nvram_pairings_count_pairings(), 1);
    EXPECT_TRUE(
        log.has("WARN velm_fcm_messaging - send_push_handler - [a,iOS,ta,404] - stays paired "
                "(the answer is not about its token)"));
    EXPECT_EQ(log.count("WARN"), 1);
    EXPECT_FALSE(log.contains("unpaired"));
}

TEST_F(Fcm, AnotherErrorOfTheServiceUnpairsNobody)
{
    pair_slot(0, "a", "ta");
    push();
    answer(404, R"({"error":{"details":[{"errorCode":"SENDER_ID_MISMATCH"}]}})");
    EXPECT_EQ(velm_nvram_pairings_count_pairings(), 1);
}

TEST_F(Fcm, TheAccessTokenThatIsRefusedIsThrownAwayAndTheNextPushAsksForAnother)
{
    pair_slot(0, "a", "ta");
    push();
    answer(401);
    velm_fcm_messaging_push_to_all(30, 0);
    ASSERT_EQ(token_requests.size(), 1U);
    answer_token(R"({"access_token":"ya29.y","valid_to":1700003599})");
    run_actions();
    run_actions();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].data.headers[0].value, "Bearer ya29.y");
}

TEST_F(Fcm, APhoneWhoseTurnComesAfterARefusalIsPushedToWithAnotherAccessToken)
{
    pair_slot(0, "a", "ta");
    pair_slot(1, "b", "tb");
    pair_slot(2, "c", "tc");
    velm_fcm_messaging_push_to_all(30, 0);
    answer_token(R"({"access_token":"ya29.x","valid_to":1700003599})");
    run_actions();
    ASSERT_EQ(actions.size(), 3U);
    run_first_action();
    answer(401);
    run_first_action();
    EXPECT_TRUE(sent.empty()) << "the refused one is not used again";
    run_first_action();
    ASSERT_EQ(token_requests.size(), 1U);
    answer_token(R"({"access_token":"ya29.y","valid_to":1700003599})");
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].data.headers[0].value, "Bearer ya29.y");
    EXPECT_NE(sent[0].data.post_data.find(R"("token":"tb")"), std::string::npos);
    EXPECT_NE(sent[1].data.post_data.find(R"("token":"tc")"), std::string::npos);
    answer(401);
    answer(401);
    EXPECT_TRUE(token_requests.empty()) << "nothing is sent twice";
}

TEST_F(Fcm, WithoutAnotherAccessTokenTheOthersAreNotPushedToAndTheLogSaysSo)
{
    const captured_log log;
    pair_slot(0, "a", "ta");
    pair_slot(1, "b", "tb");
    pair_slot(2, "c", "tc");
    velm_fcm_messaging_push_to_all(30, 0);
    answer_token(R"({"access_token":"ya29.x","valid_to":1700003599})");
    run_actions();
    run_first_action();
    answer(401);
    run_first_action();
    answer_token(nullptr);
    run_first_action();
    EXPECT_TRUE(token_requests.empty()) << "once is enough";
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(log.count("send_push - missing auth token"), 2);
}

TEST_F(Fcm, ARefusalOfAnEarlierAccessTokenLeavesTheOneThatIsHeld)
{
    pair_slot(0, "a", "ta");
    push();
    fake_clock_set(1700003599);
    velm_fcm_messaging_push_to_all(30, 0);
    answer_token(R"({"access_token":"ya29.y","valid_to":1700007198})");
    run_actions();
    run_actions();
    ASSERT_EQ(sent.size(), 2U);
    answer(401);
    velm_fcm_messaging_push_to_all(30, 0);
    EXPECT_TRUE(token_requests.empty());
}

TEST_F(Fcm, AnAccessTokenThatCameBeforeTheClockWasSetBackIsAskedForAgain)
{
    pair_slot(0, "a", "ta");
    push();
    answer(200);
    fake_clock_advance(-3600);
    velm_fcm_messaging_push_to_all(30, 0);
    EXPECT_EQ(token_requests.size(), 1U);
}

TEST_F(Fcm, APhoneThatIsUnpairedBeforeItsTurnGetsNothing)
{
    const captured_log log;
    pair_slot(0, "a", "ta");
    pair_slot(3, "b", "tb");
    velm_fcm_messaging_push_to_all(30, 0);
    answer_token(R"({"access_token":"x","valid_to":1700003599})");
    run_actions();
    velm_nvram_pairings_delete_pairing("b");
    run_actions();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_NE(sent[0].data.post_data.find(R"("token":"ta")"), std::string::npos);
    EXPECT_TRUE(log.has("DEBUG velm_fcm_messaging - send_push - slot 3 is not paired any more"));
    EXPECT_EQ(log.count("ERROR"), 0);
}

TEST_F(Fcm, ASlotThatIsValidWithoutADeviceIdIsFreeAndGetsNothing)
{
    pair_slot(0, "", "ta");
    pair_slot(1, "b", "tb");
    velm_fcm_messaging_push_to_all(30, 0);
    answer_token(R"({"access_token":"x","valid_to":1700003599})");
    run_actions();
    run_actions();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_NE(sent[0].data.post_data.find(R"("token":"tb")"), std::string::npos);
}

TEST_F(Fcm, APhoneThatPairsAgainBeforeItsTurnGetsThePushByItsNewToken)
{
    pair_slot(0, "a", "ta");
    velm_fcm_messaging_push_to_all(30, 0);
    answer_token(R"({"access_token":"x","valid_to":1700003599})");
    run_actions();
    pair_slot(0, "a", "new");
    run_actions();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_NE(sent[0].data.post_data.find(R"("token":"new")"), std::string::npos);
    answer(404);
    EXPECT_EQ(velm_nvram_pairings_count_pairings(), 0) << "that is the token that is unknown";
}

TEST_F(Fcm, AnotherPhoneThatTakesTheSlotBeforeItsTurnGetsThePush)
{
    pair_slot(0, "a", "ta");
    velm_fcm_messaging_push_to_all(30, 0);
    answer_token(R"({"access_token":"x","valid_to":1700003599})");
    run_actions();
    velm_nvram_pairings_delete_pairing("a");
    pair_slot(0, "b", "tb");
    run_actions();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_NE(sent[0].data.post_data.find(R"("token":"tb")"), std::string::npos);
}

TEST_F(Fcm, ASlotBeyondALimitThatAReloadHasLoweredGetsNothing)
{
    pair_slot(7, "a", "ta");
    velm_fcm_messaging_push_to_all(30, 0);
    answer_token(R"({"access_token":"x","valid_to":1700003599})");
    run_actions();
    config.pairings_limit = 7;
    run_actions();
    EXPECT_TRUE(sent.empty());
}

TEST_F(Fcm, EveryOtherStatusKeepsThePairingAndAllButOkAreLogged)
{
    for (const int code : {200, 201, 400, 401, 403, 429, 500, 503, -1, 0}) {
        const captured_log log;
        pair_slot(0, "a", "ta");
        push();
        answer(code);
        EXPECT_EQ(velm_nvram_pairings_count_pairings(), 1) << code;
        EXPECT_EQ(log.has(std::string{error_line} + "send_push_handler - [a,iOS,ta," +
                          std::to_string(code) + "]"),
                  code != 200)
            << code;
    }
}

TEST_F(Fcm, AnEmptyPushTokenIsNotSent)
{
    const captured_log log;
    pair_slot(0, "a", "");
    push();
    EXPECT_TRUE(sent.empty());
    EXPECT_TRUE(log.has(std::string{error_line} + "send_push - empty push_token"));
}

TEST_F(Fcm, AnEmptyPushTokenIsToldBeforeAnythingThatTheAccountLacks)
{
    const captured_log log;
    write_key(R"({"client_email":"a@b"})");
    velm_fcm_messaging_init(&config);
    pair_slot(0, "a", "");
    push();
    EXPECT_TRUE(log.has(std::string{error_line} + "send_push - empty push_token"));
    EXPECT_EQ(log.count("ERROR"), 1);
}

TEST_F(Fcm, AKeyWithoutProjectIdSendsNothing)
{
    const captured_log log;
    write_key(R"({"client_email":"a@b"})");
    velm_fcm_messaging_init(&config);
    pair_slot(0, "a", "ta");
    push();
    EXPECT_TRUE(sent.empty());
    EXPECT_TRUE(log.has(std::string{error_line} + "send_push - missing project_id"));
}

TEST_F(Fcm, ATokenObjectWithoutAccessTokenSendsNothing)
{
    const captured_log log;
    pair_slot(0, "a", "ta");
    velm_fcm_messaging_push_to_all(30, 0);
    answer_token(R"({"valid_to":1700003599})");
    run_actions();
    run_actions();
    EXPECT_TRUE(sent.empty());
    EXPECT_TRUE(log.has(std::string{error_line} + "send_push - missing access_token"));
}

TEST_F(Fcm, AReloadBetweenScheduleAndSendLeavesNoToken)
{
    const captured_log log;
    pair_slot(0, "a", "ta");
    velm_fcm_messaging_push_to_all(30, 0);
    answer_token(R"({"access_token":"x","valid_to":1700003599})");
    run_actions();
    velm_fcm_messaging_init(&config);
    run_actions();
    EXPECT_TRUE(sent.empty());
    EXPECT_TRUE(log.has(std::string{error_line} + "send_push - missing auth token"));
}

TEST_F(Fcm, ARequestThatCannotStartIsLogged)
{
    const captured_log log;
    start_result = -2;
    pair_slot(0, "a", "ta");
    push();
    EXPECT_TRUE(log.has(std::string{error_line} + "send_push - failed making http request: -2"));
}

TEST_F(Fcm, AMissingKeyFileIsLoggedAndTheEarlierKeyStays)
{
    const captured_log log;
    unlink(key_path.c_str());
    velm_fcm_messaging_init(&config);
    EXPECT_TRUE(log.has(std::string{error_line} + "velm_fcm_messaging_init - missing private key"));
    velm_fcm_messaging_push_to_all(30, 0);
    EXPECT_EQ(token_requests.size(), 1U);
}

TEST_F(Fcm, AKeyFileThatIsNoJsonLeavesNoKey)
{
    const captured_log log;
    write_key("no json");
    velm_fcm_messaging_init(&config);
    velm_fcm_messaging_push_to_all(30, 0);
    EXPECT_TRUE(token_requests.empty());
    EXPECT_TRUE(log.has(std::string{error_line} + "request_access_token - missing private key"));
}

TEST_F(Fcm, ThePrivateKeyIsNeverLogged)
{
    const captured_log log;
    write_key(R"({"project_id":"p","private_key":"SECRET"})");
    velm_fcm_messaging_init(&config);
    pair_slot(0, "a", "ta");
    push();
    EXPECT_FALSE(log.contains("SECRET"));
}

class FcmStory : public Fcm {
  protected:
    FcmStory()
    {
        story_forget();
        story_request_came(1, {1, 2, 3});
        story_run_asked(1);
        story_run_begins();
    }
    ~FcmStory() override
    {
        story_forget();
    }

    static story_round_view round()
    {
        return story_look().rounds.at(0);
    }
};

TEST_F(FcmStory, APushIsToldWithItsPhoneAndTheAnswer)
{
    pair_slot(4, "a", "ta");
    fake_nvram.values["zelkad_pairing_4_name"] = "Anna's iPhone";
    fake_nvram.values["zelkad_pairing_4_dev_model"] = "iPhone15,2";
    push();
    ASSERT_EQ(round().pushes.size(), 1U);
    EXPECT_FALSE(round().pushes[0]->ended);
    answer(404);
    const story_push &told = *round().pushes[0];
    EXPECT_EQ(told.slot, 4);
    EXPECT_STREQ(told.name, "Anna's iPhone");
    EXPECT_STREQ(told.model, "iPhone15,2");
    EXPECT_TRUE(told.ended);
    EXPECT_EQ(told.status, 404);
    EXPECT_STREQ(told.error, "the push token is not registered any more");
}

TEST_F(FcmStory, A404IsToldByWhatBecameOfThePairing)
{
    pair_slot(0, "a", "ta");
    push();
    answer(404, "<!DOCTYPE html>");
    EXPECT_STREQ(round().pushes[0]->error, "the answer is not about the push token");
    push();
    velm_nvram_pairings_delete_pairing("a");
    pair_slot(0, "a", "tb");
    answer(404);
    EXPECT_STREQ(round().pushes[1]->error, "the phone has another push token by now");
    EXPECT_EQ(velm_nvram_pairings_count_pairings(), 1);
}

TEST_F(FcmStory, APushThatTheServiceTookHasNoError)
{
    pair_slot(0, "a", "ta");
    push();
    answer(200);
    EXPECT_EQ(round().pushes[0]->status, 200);
    EXPECT_STREQ(round().pushes[0]->error, "");
    EXPECT_EQ(round().round->pushes_ok, 1U);
}

TEST_F(FcmStory, APushThatCouldNotBeMadeHasNoStatusButAReason)
{
    pair_slot(0, "a", "");
    push();
    EXPECT_EQ(round().pushes[0]->status, 0);
    EXPECT_STREQ(round().pushes[0]->error, "the pairing has no push token");
    EXPECT_EQ(round().round->pushes_bad, 1U);
}

TEST_F(FcmStory, ARunWithoutAnAccessTokenSaysSo)
{
    pair_slot(0, "a", "ta");
    velm_fcm_messaging_push_to_all(30, 0);
    story_reason_set("the access token was refused", 403);
    answer_token(nullptr);
    EXPECT_EQ(round().round->run_left_out, story_cause::no_access_token);
    EXPECT_EQ(round().round->run_status, 403);
}

TEST_F(FcmStory, ARunWithoutAKeySaysSo)
{
    write_key("no json");
    velm_fcm_messaging_init(&config);
    velm_fcm_messaging_push_to_all(30, 0);
    EXPECT_EQ(round().round->run_left_out, story_cause::no_key);
}

} // namespace
