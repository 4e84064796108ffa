#include "velm_google_integrity.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "fakes/fake_google.h"
#include "fakes/temporary_directory.h"
#include "google/junk.h"
#include "story/reason.h"

namespace {

using lines = std::vector<std::string>;

// The module remembers the hour of silence, so that each test has a day of its own.
std::time_t today = 1700000000;
constexpr std::time_t day_s = 86400;

constexpr char verdict_answer[] = R"({"tokenPayloadExternal":{"requestDetails":{"nonce":"n"}}})";
constexpr char verdict_text[] = R"({"requestDetails":{"nonce":"n"}})";
constexpr char none[] = "none";

class GoogleIntegrity : public testing::Test {
  protected:
    GoogleIntegrity()
    {
        today += day_s;
        fake_clock_set(today);
        start_result = 0;
        velm_config_copy_text(config.app_android_package_name,
                              sizeof config.app_android_package_name, "com.norvale.afc");
        load(R"({"project_id":"velm-test","client_email":"a@b","private_key":"SECRET"})");
        log.clear();
    }
    ~GoogleIntegrity() override
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
        fake_clock_reset();
    }

    void load(const std::string &key)
    {
        velm_config_copy_text(config.app_android_integrity_privatekey_path,
                              sizeof config.app_android_integrity_privatekey_path,
                              files.write("key.json", key).c_str());
        velm_google_integrity_init(&config);
    }

    static void note(const cJSON *verdict, void *verdicts)
    {
        const json_text text{verdict == nullptr ? nullptr : cJSON_PrintUnformatted(verdict)};
        static_cast<lines *>(verdicts)->push_back(text == nullptr ? none : text.get());
    }
    void ask(const std::string &token = "eyJhbGciOi.x.y.z.w")
    {
        velm_google_integrity_get_verdict(
            {reinterpret_cast<const std::uint8_t *>(token.data()), token.size()}, note, &verdicts);
    }

    static void run_actions()
    {
        std::vector<scheduled_action> now;
        now.swap(actions);
        for (const auto &action : now) {
            action.callback(action.user_data, 0, nullptr);
        }
    }
    static void answer_token(const char *json)
    {
        ASSERT_FALSE(token_requests.empty());
        const token_request request = token_requests.front();
        token_requests.erase(token_requests.begin());
        request.handler(json_ptr{json == nullptr ? nullptr : cJSON_Parse(json)}, request.context);
    }
    static void answer_token_for(std::time_t seconds, const std::string &text = "ya29.x")
    {
        answer_token((R"({"access_token":")" + text + R"(","valid_to":)" +
                      std::to_string(today + seconds) + "}")
                         .c_str());
    }
    static void answer(int code, const std::string &body = verdict_answer)
    {
        ASSERT_FALSE(sent.empty());
        const sent_request request = sent.front();
        sent.erase(sent.begin());
        request.handler(code, nullptr, body.empty() ? nullptr : body.c_str(), body.size(),
                        request.argument);
    }
    /// Up to the request, whatever has to come before it.
    void ask_until_sent()
    {
        ask();
        if (!token_requests.empty()) {
            answer_token_for(day_s);
        }
        run_actions();
    }
    /// Asks once and answers with 429 at this moment.
    void reach_the_limit()
    {
        ask_until_sent();
        answer(429, "{}");
        verdicts.clear();
        log.clear();
    }
    bool has_error(const std::string &text) const
    {
        return log.has("ERROR velm_google_integrity - " + text);
    }

    temporary_directory files;
    velm_config config{};
    lines verdicts;
    captured_log log;
};

TEST_F(GoogleIntegrity, TheVerdictOfTheAnswerReachesWhoAskedOnce)
{
    ask_until_sent();
    EXPECT_TRUE(verdicts.empty());
    answer(200);
    EXPECT_EQ(verdicts, lines{verdict_text});
    EXPECT_EQ(log.count("ERROR"), 0);
}

TEST_F(GoogleIntegrity, TheRequestHasItsAddressBodyBearerTokenAndTimeout)
{
    ask_until_sent();
    ASSERT_EQ(sent.size(), 1U);
    const http_client_request_data &data = sent[0].data;
    EXPECT_EQ(data.uri,
              "https://playintegrity.googleapis.com/v1/com.norvale.afc:decodeIntegrityToken");
    EXPECT_EQ(data.post_data, R"({"integrity_token":"eyJhbGciOi.x.y.z.w"})");
    ASSERT_EQ(data.headers.size(), 1U);
    EXPECT_EQ(data.headers[0].name, "Authorization");
    EXPECT_EQ(data.headers[0].value, "Bearer ya29.x");
    EXPECT_EQ(data.timeout_s, 10);
    EXPECT_FALSE(data.skip_server_verification);
    EXPECT_FALSE(data.skip_hostname_verification);
}

TEST_F(GoogleIntegrity, TheTokenStandsInTheBodyAsJsonText)
{
    ask("~ \"\\");
    answer_token_for(60);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].data.post_data, R"({"integrity_token":"~ \"\\"})");
}

TEST_F(GoogleIntegrity, TheAccessTokenIsAskedForWithTheKeyAndTheIntegrityScope)
{
    ask();
    ASSERT_EQ(token_requests.size(), 1U);
    EXPECT_EQ(token_requests[0].project_id, "velm-test");
    EXPECT_EQ(token_requests[0].scope, "https://www.googleapis.com/auth/playintegrity");
    EXPECT_TRUE(sent.empty());
    EXPECT_TRUE(actions.empty()) << "nothing may be sent before the token has come";
}

TEST_F(GoogleIntegrity, AHeldAccessTokenServesUntilItsLastSecond)
{
    ask();
    answer_token_for(100, "first");
    fake_clock_set(today + 99);
    ask();
    EXPECT_TRUE(token_requests.empty());
    run_actions();
    fake_clock_set(today + 100);
    ask();
    ASSERT_EQ(token_requests.size(), 1U);
    answer_token_for(200, "second");
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(sent[0].data.headers[0].value, "Bearer first");
    EXPECT_EQ(sent[1].data.headers[0].value, "Bearer first");
    EXPECT_EQ(sent[2].data.headers[0].value, "Bearer second");
}

TEST_F(GoogleIntegrity, AnAccessTokenWithoutALifetimeServesOnce)
{
    ask();
    answer_token_for(0);
    EXPECT_EQ(sent.size(), 1U);
    ask();
    EXPECT_EQ(token_requests.size(), 1U);
}

TEST_F(GoogleIntegrity, WhoComesWhileAnAccessTokenIsFetchedSharesIt)
{
    ask("one");
    ask("two");
    EXPECT_EQ(token_requests.size(), 1U);
    answer_token_for(60);
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].data.post_data, R"({"integrity_token":"one"})");
    EXPECT_EQ(sent[1].data.post_data, R"({"integrity_token":"two"})");
}

TEST_F(GoogleIntegrity, WithoutAnAccessTokenThereIsNoVerdict)
{
    ask();
    ask();
    answer_token(nullptr);
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(verdicts, (lines{none, none}));
    EXPECT_TRUE(has_error("send_integrity - missing auth token"));
}

TEST_F(GoogleIntegrity, AnAccessTokenObjectWithoutATextGivesNoVerdict)
{
    ask();
    answer_token(R"({"valid_to":1})");
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(verdicts, lines{none});
    EXPECT_TRUE(has_error("send_integrity - missing access_token"));
}

TEST_F(GoogleIntegrity, AKeyWithoutProjectIdGivesNoVerdictAndAsksNobody)
{
    load(R"({"client_email":"a@b"})");
    ask();
    EXPECT_TRUE(token_requests.empty());
    EXPECT_TRUE(verdicts.empty()) << "never inside the call";
    run_actions();
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(verdicts, lines{none});
    EXPECT_TRUE(has_error("send_integrity - missing project_id"));
}

TEST_F(GoogleIntegrity, WithoutAKeyThereIsNoVerdict)
{
    load("no json");
    EXPECT_TRUE(has_error("velm_google_integrity_init - cannot parse private key"));
    ask();
    run_actions();
    EXPECT_TRUE(token_requests.empty());
    EXPECT_EQ(verdicts, lines{none});
    EXPECT_TRUE(has_error("send_integrity - missing project_id"));
}

TEST_F(GoogleIntegrity, AMissingKeyFileIsLoggedAndTheEarlierKeyStays)
{
    velm_config_copy_text(config.app_android_integrity_privatekey_path,
                          sizeof config.app_android_integrity_privatekey_path,
                          files.path("none").c_str());
    velm_google_integrity_init(&config);
    EXPECT_TRUE(has_error("velm_google_integrity_init - missing private key"));
    ask();
    EXPECT_EQ(token_requests.size(), 1U);
}

TEST_F(GoogleIntegrity, InitSaysItsName)
{
    velm_google_integrity_init(&config);
    EXPECT_EQ(log.lines(), lines{"TRACE velm_google_integrity - velm_google_integrity_init"});
}

TEST_F(GoogleIntegrity, ThePrivateKeyIsNeverLogged)
{
    velm_google_integrity_init(&config);
    ask_until_sent();
    answer(200);
    EXPECT_FALSE(log.contains("SECRET"));
}

struct bad_token {
    const char *name;
    std::string bytes;
};
class BadToken : public GoogleIntegrity, public testing::WithParamInterface<bad_token> {};

TEST_P(BadToken, IsRefusedWithoutAskingGoogle)
{
    ask(GetParam().bytes);
    EXPECT_TRUE(verdicts.empty()) << "never inside the call";
    EXPECT_TRUE(token_requests.empty());
    run_actions();
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(verdicts, lines{none});
    EXPECT_EQ(log.lines(), lines{"ERROR velm_google_integrity - "
                                 "velm_google_integrity_get_verdict - invalid token"});
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, BadToken,
    testing::Values(bad_token{"Empty", ""}, bad_token{"Nul", std::string{"a\0b", 3}},
                    bad_token{"LastControl", "a\x1f"}, bad_token{"Newline", "a\n"},
                    bad_token{"Delete", "a\x7f"}, bad_token{"HighBit", "a\x80"},
                    bad_token{"Utf8", "\xc3\xa4"}, bad_token{"AllOnes", "\xff"}),
    [](const auto &row) { return std::string{row.param.name}; });

struct bad_answer {
    const char *name;
    int code;
    const char *body;
    const char *error;
};
class BadAnswer : public GoogleIntegrity, public testing::WithParamInterface<bad_answer> {};

TEST_P(BadAnswer, GivesNoVerdictOnceAndSaysWhy)
{
    ask_until_sent();
    answer(GetParam().code, GetParam().body);
    EXPECT_EQ(verdicts, lines{none});
    EXPECT_EQ(log.count("ERROR"), 1);
    EXPECT_TRUE(log.contains("ERROR velm_google_integrity - send_integrity_handler [0x"));
    EXPECT_TRUE(log.contains(std::string{"] - "} + GetParam().error));
    ask();
    if (GetParam().code == 401) {
        answer_token_for(day_s); // the one that was refused is gone
    }
    EXPECT_TRUE(token_requests.empty());
    run_actions();
    EXPECT_EQ(sent.size(), 1U) << "the next one is sent";
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Answers, BadAnswer, testing::Values(
    bad_answer{"Created",      201, verdict_answer, "http request failed: 201"},
    bad_answer{"Redirect",     302, "",             "http request failed: 302"},
    bad_answer{"BadRequest",   400, verdict_answer, "http request failed: 400"},
    bad_answer{"Unauthorized", 401, "{}",           "http request failed: 401"},
    bad_answer{"Forbidden",    403, "{}",           "http request failed: 403"},
    bad_answer{"NotFound",     404, "{}",           "http request failed: 404"},
    bad_answer{"Broken",       500, "{}",           "http request failed: 500"},
    bad_answer{"Unavailable",  503, "",             "http request failed: 503"},
    bad_answer{"TimedOut",     -1,  "",             "http request failed: -1"},
    bad_answer{"Cut",          -2,  "",             "http request failed: -2"},
    bad_answer{"Refused",      0,   "",             "http request failed: 0"},
    bad_answer{"Empty",        200, "",             "empty response"},
    bad_answer{"NoJson",       200, "<html>",       "parse error"},
    bad_answer{"List",         200, "[]",           "parse error"},
    bad_answer{"NoPayload",    200, "{}",           "no tokenPayloadExternal"},
    bad_answer{"OtherCase",    200, R"({"tokenpayloadexternal":{}})", "no tokenPayloadExternal"},
    bad_answer{"NullPayload",  200, R"({"tokenPayloadExternal":null})", "no tokenPayloadExternal"},
    bad_answer{"TextPayload",  200, R"({"tokenPayloadExternal":"{}"})", "no tokenPayloadExternal"}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

TEST_F(GoogleIntegrity, AnEmptyVerdictObjectIsStillOne)
{
    ask_until_sent();
    answer(200, R"({"tokenPayloadExternal":{}})");
    EXPECT_EQ(verdicts, lines{"{}"});
}

TEST_F(GoogleIntegrity, ARequestThatCannotStartGivesNoVerdict)
{
    start_result = -3;
    ask_until_sent();
    EXPECT_EQ(verdicts, lines{none});
    EXPECT_TRUE(has_error("send_integrity - failed making http request: -3"));
}

TEST_F(GoogleIntegrity, TheAccessTokenThatIsRefusedIsThrownAway)
{
    ask();
    answer_token_for(day_s, "bad");
    ask();
    run_actions();
    ASSERT_EQ(sent.size(), 2U) << "both with the bad one";
    answer(401, "{}");
    ask();
    answer_token_for(day_s, "good");
    answer(401, "{}"); // late, of the bad one
    ask();
    EXPECT_TRUE(token_requests.empty()) << "the good one is held";
    run_actions();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].data.headers[0].value, "Bearer good");
    EXPECT_EQ(sent[1].data.headers[0].value, "Bearer good");
    EXPECT_EQ(verdicts, (lines{none, none}));
}

TEST_F(GoogleIntegrity, ASilenceThatBeganInTheFutureIsOver)
{
    reach_the_limit();
    fake_clock_set(today - 1);
    velm_google_integrity_init(&config); // so that the access token plays no part
    ask();
    answer_token_for(day_s);
    ASSERT_EQ(sent.size(), 1U);
    answer(429, "{}");
    fake_clock_set(today);
    ask();
    run_actions();
    EXPECT_TRUE(sent.empty()) << "a new one has begun";
}

class JunkTokens : public GoogleIntegrity {
  protected:
    JunkTokens()
    {
        ask_until_sent(); // an access token is held
        answer(200);
        verdicts.clear();
        log.clear();
    }
    void ask_for(const char *address)
    {
        const velm_google_asker asking{in_addr{inet_addr(address)}};
        ask();
    }
    void send_for(const char *address, int code)
    {
        ask_for(address);
        run_actions();
        answer(code, "{}");
    }
};

TEST_F(JunkTokens, AreAskedAboutTenTimesAndTheAddressThenWaitsForTheMinuteToEnd)
{
    for (int i = 0; i < 10; ++i) {
        send_for("192.168.1.5", 400);
    }
    log.clear();
    ask_for("192.168.1.5");
    EXPECT_EQ(verdicts.size(), 10U) << "never inside the call";
    run_actions();
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(verdicts.size(), 11U);
    EXPECT_EQ(log.lines(), lines{"WARN velm_google_integrity - velm_google_integrity_get_verdict - "
                                 "too many junk tokens from 192.168.1.5"});
    ask_for("192.168.1.6");
    run_actions();
    EXPECT_EQ(sent.size(), 1U) << "the others are asked about";
    answer(200);
    fake_clock_set(today + 60);
    ask_for("192.168.1.5");
    run_actions();
    EXPECT_EQ(sent.size(), 1U);
}

TEST_F(JunkTokens, ThatComeAllAtOnceAreAskedAboutTenTimes)
{
    for (int i = 0; i < 300; ++i) {
        ask_for("192.168.1.5");
    }
    run_actions();
    EXPECT_EQ(sent.size(), 10U);
    while (!sent.empty()) {
        answer(400, "{}");
    }
    EXPECT_EQ(verdicts.size(), 300U);
}

TEST_F(JunkTokens, ThatWaitForAnAccessTokenCountToo)
{
    velm_google_integrity_init(&config); // drops the access token
    for (int i = 0; i < 300; ++i) {
        ask_for("192.168.1.5");
    }
    answer_token_for(day_s);
    run_actions();
    EXPECT_EQ(sent.size(), 10U);
}

TEST_F(JunkTokens, AreThoseOfStatus400Only)
{
    for (const int code : {200, 401, 403, 404, 500, 503, -1, 0}) {
        for (int i = 0; i < 11; ++i) {
            ask_for("192.168.1.5");
            if (!token_requests.empty()) {
                answer_token_for(day_s); // the one before was refused
            }
            run_actions();
            answer(code, "{}");
        }
    }
    EXPECT_FALSE(log.contains("junk"));
}

TEST_F(JunkTokens, CountNoLongerWhenTheyCouldNotBeSent)
{
    start_result = -1;
    for (int i = 0; i < 20; ++i) {
        ask_for("192.168.1.5");
        run_actions();
    }
    start_result = 0;
    ask_for("192.168.1.5");
    run_actions();
    EXPECT_EQ(sent.size(), 1U);
}

TEST_F(JunkTokens, OfNobodyAreNotCounted)
{
    for (int i = 0; i < 100; ++i) {
        ask();
        run_actions();
        answer(400, "{}");
    }
    EXPECT_FALSE(log.contains("junk"));
}

TEST_F(JunkTokens, CountAlsoAfterAReload)
{
    for (int i = 0; i < 10; ++i) {
        send_for("192.168.1.5", 400);
    }
    velm_google_integrity_init(&config);
    ask_for("192.168.1.5");
    EXPECT_TRUE(token_requests.empty()) << "no access token is fetched for it";
    run_actions();
    EXPECT_TRUE(sent.empty());
}

TEST_F(GoogleIntegrity, AfterStatus429NothingIsSentForAnHourAndNotASecondLonger)
{
    reach_the_limit();
    fake_clock_set(today + 3599);
    ask();
    run_actions();
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(verdicts, lines{none});
    EXPECT_EQ(log.lines(),
              lines{"WARN velm_google_integrity - send_integrity - daily limit reached"});
    EXPECT_STREQ(story_reason_take().text,
                 "Google's daily limit is reached: Google is not asked for an hour");
    fake_clock_set(today + 3600);
    ask();
    run_actions();
    EXPECT_EQ(sent.size(), 1U);
}

TEST_F(GoogleIntegrity, TheHourIsCountedFromTheLastRequestAndNotFromTheAnswer)
{
    ask_until_sent();
    fake_clock_set(today + 9);
    answer(429, "{}");
    fake_clock_set(today + 3600);
    ask();
    run_actions();
    EXPECT_EQ(sent.size(), 1U);
}

TEST_F(GoogleIntegrity, ARefusedRequestDoesNotLengthenTheSilence)
{
    reach_the_limit();
    for (const std::time_t later : {1, 1800, 3599}) {
        fake_clock_set(today + later);
        ask();
        run_actions();
    }
    EXPECT_EQ(verdicts, (lines{none, none, none}));
    fake_clock_set(today + 3600);
    ask();
    run_actions();
    EXPECT_EQ(sent.size(), 1U);
}

TEST_F(GoogleIntegrity, TheSilenceEndsWithItsFirstRequest)
{
    reach_the_limit();
    fake_clock_set(today + 3600);
    ask();
    ask();
    run_actions();
    EXPECT_EQ(sent.size(), 2U);
}

TEST_F(GoogleIntegrity, TheSilenceIsLookedAtAfterTheAccessTokenHasCome)
{
    ask();
    answer_token_for(3599);
    answer(429, "{}");
    fake_clock_set(today + 3599);
    ask();
    EXPECT_EQ(token_requests.size(), 1U);
    fake_clock_set(today + 3600);
    answer_token_for(day_s);
    EXPECT_EQ(sent.size(), 1U);
}

TEST_F(GoogleIntegrity, AMissingAccessTokenIsToldAlsoDuringTheSilence)
{
    reach_the_limit();
    velm_google_integrity_init(&config); // drops the access token
    ask();
    answer_token(nullptr);
    EXPECT_TRUE(has_error("send_integrity - missing auth token"));
    EXPECT_FALSE(log.contains("daily limit reached"));
}

TEST_F(GoogleIntegrity, TheHourIsNotCountedFromARequestThatHadNoAccessToken)
{
    ask_until_sent();
    fake_clock_set(today + 9);
    velm_google_integrity_init(&config); // drops the access token
    ask();
    answer_token(nullptr);
    answer(429, "{}");
    fake_clock_set(today + 3600);
    ask();
    answer_token_for(day_s);
    EXPECT_EQ(sent.size(), 1U);
}

TEST_F(GoogleIntegrity, ARequestSentBeforeTheLimitWasReachedStillBringsItsVerdict)
{
    ask_until_sent();
    ask();
    run_actions();
    answer(429, "{}");
    answer(200);
    EXPECT_EQ(verdicts, (lines{none, verdict_text}));
    ask();
    run_actions();
    EXPECT_TRUE(sent.empty()) << "its success does not end the silence";
}

TEST_F(GoogleIntegrity, AReloadDropsTheAccessTokenAndKeepsTheSilence)
{
    reach_the_limit();
    velm_google_integrity_init(&config);
    ask();
    ASSERT_EQ(token_requests.size(), 1U) << "the old one went with its key";
    answer_token_for(day_s);
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(verdicts, lines{none});
    EXPECT_TRUE(log.has("WARN velm_google_integrity - send_integrity - daily limit reached"));
}

TEST_F(GoogleIntegrity, AReloadWhileAnAccessTokenIsFetchedEndsTheRequestsThatWait)
{
    ask();
    ask();
    velm_google_integrity_init(&config);
    answer_token_for(60);
    EXPECT_TRUE(sent.empty()) << "the token is of the key that was replaced";
    EXPECT_EQ(verdicts, (lines{none, none}));
    ask();
    EXPECT_EQ(token_requests.size(), 1U) << "and it is not held";
}

TEST_F(GoogleIntegrity, AReloadBeforeAQueuedRequestLeavesItNoAccessToken)
{
    ask();
    answer_token_for(60);
    answer(200);
    verdicts.clear();
    ask();
    velm_google_integrity_init(&config);
    run_actions();
    EXPECT_EQ(verdicts, lines{none});
    EXPECT_TRUE(has_error("send_integrity - missing auth token"));
}

TEST_F(GoogleIntegrity, AnAnswerAfterAReloadReachesWhoAskedOnce)
{
    ask_until_sent();
    velm_google_integrity_init(&config);
    answer(200);
    EXPECT_EQ(verdicts, lines{verdict_text});
}

json_ptr read_sample(const std::string &name)
{
    std::ifstream file{VELM_TEST_DATA "/google/" + name};
    const std::string text{std::istreambuf_iterator<char>{file}, {}};
    return json_ptr{cJSON_Parse(text.c_str())};
}

TEST_F(GoogleIntegrity, TheServicesOwnErrorAnswersGiveNoVerdict)
{
    const json_ptr samples = read_sample("play_integrity_errors.json");
    ASSERT_EQ(cJSON_GetArraySize(samples.get()), 3);
    const cJSON *sample = nullptr;
    cJSON_ArrayForEach(sample, samples.get())
    {
        const json_text body{cJSON_PrintUnformatted(cJSON_GetObjectItem(sample, "body"))};
        const int status = cJSON_GetObjectItem(sample, "http_status")->valueint;
        verdicts.clear();
        ask_until_sent();
        answer(status, body.get());
        EXPECT_EQ(verdicts, lines{none});
        EXPECT_TRUE(log.contains("http request failed: " + std::to_string(status)));
    }
}

TEST_F(GoogleIntegrity, AddressScopeAndMembersAreThoseOfTheServicesDescription)
{
    const json_ptr facts = read_sample("play_integrity_api_facts.json");
    const auto fact = [&facts](const char *name) {
        return std::string{cJSON_GetStringValue(cJSON_GetObjectItem(facts.get(), name))};
    };
    ask();
    EXPECT_EQ(token_requests.at(0).scope, fact("scope"));
    answer_token_for(60);
    std::string address = fact("base_url") + fact("path");
    const std::string package = "{+packageName}";
    address.replace(address.find(package), package.size(), "com.norvale.afc");
    EXPECT_EQ(sent.at(0).data.uri, address);
    answer(200, "{\"" + fact("response_member") + "\":{}}");
    EXPECT_EQ(verdicts, lines{"{}"});
}

TEST_F(GoogleIntegrity, AMissingCompletionEndsTheProcess)
{
    const std::uint8_t byte = 'a';
    EXPECT_DEATH(velm_google_integrity_get_verdict({&byte, 1}, nullptr, nullptr),
                 "velm_google_integrity_get_verdict: completion is null: null reference");
}

} // namespace
