#include "google/account.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "fakes/temporary_directory.h"
#include "velm_google_auth.h"

namespace {

struct token_request {
    std::string project_id, scope;
    velm_google_auth_response_handler handler;
    void *context;
};
std::vector<token_request> token_requests;

} // namespace

int velm_google_auth_request_access_token(const cJSON *private_key, const char *scope,
                                          velm_google_auth_response_handler response_handler,
                                          void *context)
{
    token_requests.push_back(
        {cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(private_key, "project_id")), scope,
         response_handler, context});
    return 0;
}

void http_client_add_header(http_client_request_data *data, const char *header_name,
                            const char *header_value)
{
    data->headers.push_back({header_name, header_value});
}

namespace {

constexpr char key[] = R"({"project_id":"p1"})";
constexpr char other_key[] = R"({"project_id":"p2"})";
constexpr char token[] = R"({"access_token":"t1","valid_to":1700000060})";
constexpr char other_token[] = R"({"access_token":"t2","valid_to":1700000060})";

class GoogleAccount : public testing::Test {
  protected:
    GoogleAccount()
    {
        fake_clock_set(1700000000);
        load(key);
    }
    ~GoogleAccount() override
    {
        while (!token_requests.empty()) {
            answer(nullptr);
        }
        fake_clock_reset();
    }

    void load(const char *text)
    {
        velm_google_account_load(account, files.write("key.json", text).c_str(), "a_module",
                                 "a_function");
    }

    static void answer(const char *json)
    {
        const token_request request = token_requests.front();
        token_requests.erase(token_requests.begin());
        request.handler(json_ptr{json == nullptr ? nullptr : cJSON_Parse(json)}, request.context);
    }

    static void note(bool held, void *outcomes)
    {
        static_cast<std::vector<bool> *>(outcomes)->push_back(held);
    }
    void ask()
    {
        velm_google_account_request_token(account, note, &outcomes);
    }
    bool ready() const
    {
        return velm_google_account_is_ready(account, "a_module", "a_function");
    }
    std::string authorization() const
    {
        return velm_google_account_make_request(account, "u", "b").headers.at(0).value;
    }

    temporary_directory files;
    velm_google_account account{.scope = "a scope"};
    std::vector<bool> outcomes;
    captured_log log;
};

TEST_F(GoogleAccount, ATokenIsAskedForWithItsKeyAndScopeAndHeld)
{
    ask();
    ASSERT_EQ(token_requests.size(), 1U);
    EXPECT_EQ(token_requests[0].project_id, "p1");
    EXPECT_EQ(token_requests[0].scope, "a scope");
    EXPECT_TRUE(outcomes.empty());
    answer(token);
    EXPECT_EQ(outcomes, std::vector<bool>{true});
    EXPECT_TRUE(velm_google_account_token_serves(account));
    EXPECT_TRUE(ready());
}

TEST_F(GoogleAccount, WhoComesWhileATokenIsOnItsWaySharesIt)
{
    ask();
    ask();
    ask();
    EXPECT_EQ(token_requests.size(), 1U);
    answer(token);
    EXPECT_EQ(outcomes, (std::vector<bool>{true, true, true}));
    ask();
    EXPECT_EQ(token_requests.size(), 1U) << "that one has been answered";
}

TEST_F(GoogleAccount, WithoutAnAnswerNothingIsHeldAndTheNextOneAsksAgain)
{
    ask();
    answer(nullptr);
    EXPECT_EQ(outcomes, std::vector<bool>{false});
    EXPECT_FALSE(velm_google_account_token_serves(account));
    ask();
    EXPECT_EQ(token_requests.size(), 1U);
}

TEST_F(GoogleAccount, ATokenThatCannotBeRenewedIsDropped)
{
    ask();
    answer(token);
    ask();
    answer(nullptr);
    EXPECT_FALSE(ready());
}

TEST_F(GoogleAccount, ATokenServesUntilItsLastSecond)
{
    EXPECT_FALSE(velm_google_account_token_serves(account));
    ask();
    answer(token);
    fake_clock_set(1700000059);
    EXPECT_TRUE(velm_google_account_token_serves(account));
    fake_clock_set(1700000060);
    EXPECT_FALSE(velm_google_account_token_serves(account));
}

TEST_F(GoogleAccount, ATokenThatCameInTheFutureDoesNotServe)
{
    ask();
    answer(token);
    fake_clock_set(1699999999);
    EXPECT_FALSE(velm_google_account_token_serves(account));
    ask();
    answer(token);
    EXPECT_TRUE(velm_google_account_token_serves(account));
}

TEST_F(GoogleAccount, AClockThatIsSetBackALittleGivesATokenNoMoreTime)
{
    ask();
    answer(token);
    fake_clock_advance(50);
    fake_clock_advance(-40);
    fake_clock_advance_steady(58);
    EXPECT_TRUE(velm_google_account_token_serves(account));
    fake_clock_advance_steady(2);
    EXPECT_FALSE(velm_google_account_token_serves(account));
}

TEST_F(GoogleAccount, ATokenThatAServiceRefusesIsHeldNoLonger)
{
    ask();
    answer(token);
    velm_google_account_refuse_token(account, account.token_number, "a_module", "a_function");
    EXPECT_FALSE(velm_google_account_token_serves(account));
    EXPECT_TRUE(account.token_refused);
    EXPECT_TRUE(log.has("INFO a_module - a_function - access token refused, the next one is asked "
                        "for"));
    EXPECT_FALSE(ready());
    ask();
    answer(other_token);
    EXPECT_FALSE(account.token_refused);
    EXPECT_EQ(authorization(), "Bearer t2");
}

TEST_F(GoogleAccount, ATokenThatCameAfterTheRefusedOneStays)
{
    ask();
    answer(token);
    const unsigned refused = account.token_number;
    ask();
    answer(other_token);
    velm_google_account_refuse_token(account, refused, "a_module", "a_function");
    EXPECT_TRUE(velm_google_account_token_serves(account));
    EXPECT_FALSE(account.token_refused);
}

TEST_F(GoogleAccount, ANewKeyHasNoRefusedToken)
{
    ask();
    answer(token);
    velm_google_account_refuse_token(account, account.token_number, "a_module", "a_function");
    load(other_key);
    EXPECT_FALSE(account.token_refused);
}

TEST_F(GoogleAccount, ANewKeyDropsTheTokenOfTheOldOne)
{
    ask();
    answer(token);
    load(other_key);
    EXPECT_FALSE(velm_google_account_token_serves(account));
    EXPECT_STREQ(velm_google_account_project_id(account), "p2");
    EXPECT_FALSE(ready());
    EXPECT_TRUE(log.has("ERROR a_module - a_function - missing auth token"));
}

TEST_F(GoogleAccount, ATokenOfAnOldKeyIsNotHeldButEndsItsRequests)
{
    ask();
    ask();
    load(other_key);
    answer(token);
    EXPECT_EQ(outcomes, (std::vector<bool>{false, false}));
    EXPECT_FALSE(ready());
}

TEST_F(GoogleAccount, AnAnswerForAnOldKeyLeavesTheTokenOfTheNewOneAlone)
{
    ask();
    load(other_key);
    ask();
    ASSERT_EQ(token_requests.size(), 2U);
    std::swap(token_requests[0], token_requests[1]);
    answer(other_token);
    answer(token);
    EXPECT_EQ(outcomes, (std::vector<bool>{true, false}));
    EXPECT_EQ(authorization(), "Bearer t2");
}

TEST_F(GoogleAccount, AnAnswerForAnOldKeyDoesNotEndTheFetchOfTheNewOne)
{
    ask();
    load(other_key);
    ask();
    answer(token); // the old key's
    ask();
    EXPECT_EQ(token_requests.size(), 1U) << "still on its way";
    answer(other_token);
    EXPECT_EQ(outcomes, (std::vector<bool>{false, true, true}));
}

TEST_F(GoogleAccount, AMissingFileLeavesKeyAndToken)
{
    ask();
    answer(token);
    velm_google_account_load(account, files.path("none").c_str(), "a_module", "a_function");
    EXPECT_TRUE(log.has("ERROR a_module - a_function - missing private key"));
    EXPECT_TRUE(velm_google_account_token_serves(account));
    EXPECT_TRUE(ready());
}

TEST_F(GoogleAccount, AFileThatIsNoJsonLeavesNeither)
{
    ask();
    answer(token);
    load("no json");
    EXPECT_TRUE(log.has("ERROR a_module - a_function - cannot parse private key"));
    EXPECT_EQ(account.private_key, nullptr);
    EXPECT_FALSE(velm_google_account_token_serves(account));
}

TEST_F(GoogleAccount, AFileThatCannotBeReadLeavesNoKey)
{
    velm_google_account_load(account, files.path("").c_str(), "a_module", "a_function");
    EXPECT_TRUE(log.has("ERROR a_module - a_function - cannot parse private key"));
    EXPECT_STREQ(velm_google_account_project_id(account), "");
}

struct unready_account {
    const char *name, *key, *token, *line;
};

class UnreadyAccount : public GoogleAccount, public testing::WithParamInterface<unready_account> {};

TEST_P(UnreadyAccount, SaysWhatIsMissing)
{
    load(GetParam().key);
    account.access_token.reset(cJSON_Parse(GetParam().token));
    EXPECT_FALSE(ready());
    EXPECT_EQ(log.lines().back(), std::string{"ERROR a_module - a_function - "} + GetParam().line);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Reasons, UnreadyAccount, testing::Values(
    unready_account{"NoProject",       R"({"client_email":"a@b"})", token, "missing project_id"},
    unready_account{"EmptyProject",    R"({"project_id":""})",      token, "missing project_id"},
    unready_account{"ProjectNumber",   R"({"project_id":5})",       token, "missing project_id"},
    unready_account{"NoKeyAtAll",      "no json",                   token, "missing project_id"},
    unready_account{"NeitherProjectNorToken", "{}", "",                    "missing project_id"},
    unready_account{"NoToken",         key, "",                            "missing auth token"},
    unready_account{"NoAccessToken",   key, R"({"valid_to":1})",           "missing access_token"},
    unready_account{"EmptyToken",      key, R"({"access_token":""})",      "missing access_token"},
    unready_account{"TokenNumber",     key, R"({"access_token":1})",       "missing access_token"}),
    [](const auto &row) { return std::string{row.param.name}; });
// clang-format on

TEST_F(GoogleAccount, ARequestCarriesItsBearerTokenBodyAndTimeout)
{
    ask();
    answer(token);
    const http_client_request_data request =
        velm_google_account_make_request(account, "https://x/y", "body");
    EXPECT_EQ(request.uri, "https://x/y");
    EXPECT_EQ(request.post_data, "body");
    EXPECT_EQ(request.timeout_s, 10);
    ASSERT_EQ(request.headers.size(), 1U);
    EXPECT_EQ(request.headers[0].name, "Authorization");
    EXPECT_EQ(request.headers[0].value, "Bearer t1");
    EXPECT_FALSE(request.skip_server_verification);
    EXPECT_FALSE(request.skip_hostname_verification);
}

} // namespace
