// Before libevhtp, whose regular-expression header clashes with the system's.
#include <gtest/gtest.h>

#include "velm_request_user_pass_check.h"

#include <cstring>
#include <string>
#include <vector>

#include "accounts/shadow.h"
#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "fakes/paused_request.h"
#include "request/record.h"
#include "velm_user_auth_passwd.h"

namespace {

int logins = 0;
std::vector<int> reported;

} // namespace

int velm_user_auth_passwd_login(const char *username, const char *password)
{
    ++logins;
    const bool has_account =
        std::strcmp(username, "admin") == 0 || std::strcmp(username, "other") == 0;
    return has_account && std::strcmp(password, "right") == 0 ? 1 : 0;
}

void velm_request_preprocessor_continue(velm_request_preprocessor *, int break_code)
{
    reported.push_back(break_code);
}

namespace {

constexpr std::time_t start_time = 1700000000;
constexpr int max_failures = velm_login_max_failures;

class UserPassCheck : public testing::Test {
  protected:
    UserPassCheck()
    {
        test_loop();
        // The module counts for the whole process: end the block that an earlier test left.
        fake_clock_set(start_time - 3600);
        EXPECT_EQ(login("admin", "right"), 0);
        fake_clock_set(start_time);
        forget_all_names();
        logins = 0;
    }
    ~UserPassCheck() override
    {
        fake_clock_set(start_time + 1000000);
        login("admin", "right");
        fake_clock_reset();
    }

    /// By as many others as are remembered.
    static void forget_all_names()
    {
        for (int number = 0; number < 64; ++number) {
            login(("filler" + std::to_string(number)).c_str(), "wrong");
            login("admin", "right");
        }
    }

    static int login(const char *username, const char *password)
    {
        velm_request_preprocessor p;
        p.client_username = username;
        p.client_password = password;
        reported.clear();
        make_user_pass_check(&p);
        turn_test_loop();
        return reported.size() == 1 ? reported[0] : -1;
    }

    /// A wrong login of that name, then a right one of another, which ends the row of all.
    static void fail_between_right_ones(const std::string &name, int times)
    {
        for (int i = 0; i < times; ++i) {
            EXPECT_EQ(login(name.c_str(), "wrong"), VELM_BREAK_LOGIN) << name;
            EXPECT_EQ(login("other", "right"), 0) << name;
        }
    }

    /// Its password is not looked at, right as it may be.
    static bool is_blocked(const std::string &name)
    {
        const int before = logins;
        return login(name.c_str(), "right") == VELM_BREAK_LOGIN && logins == before;
    }

    /// So many failures, the first that many seconds after the start, each other so much later.
    static void fail(int times, int second = 0, int apart = 0)
    {
        for (int i = 0; i < times; ++i) {
            fake_clock_set(start_time + second + i * apart);
            EXPECT_EQ(login("admin", "wrong"), VELM_BREAK_LOGIN);
        }
    }

    captured_log log_;
};

TEST_F(UserPassCheck, AcceptsTheRightPassword)
{
    EXPECT_EQ(login("admin", "right"), 0);
    EXPECT_TRUE(log_.contains("TRACE velm_request_user_pass_check - make_user_pass_check [0x"));
    EXPECT_TRUE(log_.contains("] - finished"));
}

TEST_F(UserPassCheck, RefusesAWrongPassword)
{
    EXPECT_EQ(login("admin", "wrong"), VELM_BREAK_LOGIN);
}

TEST_F(UserPassCheck, RefusesAbsentAndEmptyCredentialsUnseen)
{
    EXPECT_EQ(login(nullptr, "right"), VELM_BREAK_LOGIN);
    EXPECT_EQ(login("", "right"), VELM_BREAK_LOGIN);
    EXPECT_EQ(login("admin", nullptr), VELM_BREAK_LOGIN);
    EXPECT_EQ(login("admin", ""), VELM_BREAK_LOGIN);
    EXPECT_EQ(logins, 0);
}

TEST_F(UserPassCheck, AbsentCredentialsCountAsFailures)
{
    for (int i = 0; i < max_failures; ++i) {
        EXPECT_EQ(login(nullptr, nullptr), VELM_BREAK_LOGIN);
    }
    EXPECT_EQ(login("admin", "right"), VELM_BREAK_LOGIN);
}

TEST_F(UserPassCheck, AfterTheLastFailureTheRightPasswordIsRefusedUnseenWithTheSecondsLeft)
{
    fail(max_failures);
    logins = 0;
    EXPECT_EQ(login("admin", "right"), VELM_BREAK_LOGIN);
    EXPECT_EQ(logins, 0);
    EXPECT_TRUE(log_.has("WARN velm_request_user_pass_check - make_user_pass_check - "
                         "login blocked (60 seconds remained)"));
}

TEST_F(UserPassCheck, OneFailureBeforeTheRightPasswordIsAcceptedAndTheCountIsZeroAgain)
{
    fail(max_failures - 1);
    EXPECT_EQ(login("admin", "right"), 0);
    fail(max_failures - 1);
    EXPECT_EQ(login("admin", "right"), 0);
}

TEST_F(UserPassCheck, IsBlockedFor60SecondsFromTheFirstFailure)
{
    fail(max_failures, 0, 10);
    fake_clock_set(start_time + 59);
    EXPECT_EQ(login("admin", "right"), VELM_BREAK_LOGIN);
    EXPECT_TRUE(log_.contains("login blocked (1 seconds remained)"));
    fake_clock_set(start_time + 60);
    EXPECT_EQ(login("admin", "right"), 0);
}

TEST_F(UserPassCheck, ABlockThatEndsWhileItIsLookedAtHoldsForThisLogin)
{
    fail(max_failures);
    fake_clock_set(start_time + 59);
    fake_clock_advance_at_each_reading(1);
    EXPECT_TRUE(is_blocked("admin"));
    EXPECT_TRUE(log_.contains("login blocked (1 seconds remained)"));
    fake_clock_advance_at_each_reading(0);
    fake_clock_set(start_time + 60);
    EXPECT_EQ(login("admin", "right"), 0);
}

TEST_F(UserPassCheck, TheCountIsZeroAgainAfterTheBlock)
{
    fail(max_failures);
    fail(max_failures - 1, 60);
    EXPECT_EQ(login("admin", "right"), 0) << "a new series may have as many";
    fail(max_failures, 60);
    EXPECT_EQ(login("admin", "right"), VELM_BREAK_LOGIN);
    EXPECT_TRUE(log_.contains("login blocked (60 seconds remained)"));
}

TEST_F(UserPassCheck, ABlockedAttemptIsNotCounted)
{
    fail(max_failures);
    fail(2, 30, 29);
    fake_clock_set(start_time + 60);
    EXPECT_EQ(login("admin", "right"), 0);
}

TEST_F(UserPassCheck, ASeriesOfFailuresHasNoEndButASuccess)
{
    fail(max_failures, 0, 100);
    EXPECT_EQ(login("admin", "right"), 0) << "the last came long after the block would be over";
}

TEST_F(UserPassCheck, ANameIsRefusedAfterTheLastFailureWhateverOthersDo)
{
    fail_between_right_ones("admin", max_failures - 1);
    EXPECT_FALSE(is_blocked("admin"));
    fail_between_right_ones("admin", max_failures);
    EXPECT_TRUE(is_blocked("admin"));
    EXPECT_TRUE(log_.has("WARN velm_request_user_pass_check - make_user_pass_check - login blocked "
                         "(60 seconds remained) for this user name"));
    EXPECT_EQ(login("other", "right"), 0);
}

TEST_F(UserPassCheck, OfAHundredWrongPasswordsBetweenRightOnesOfAnotherOneRowIsLookedAt)
{
    int seen = 0;
    for (int i = 0; i < 100; ++i) {
        logins = 0;
        EXPECT_EQ(login("admin", "wrong"), VELM_BREAK_LOGIN);
        seen += logins;
        if (i % (max_failures - 1) == max_failures - 2) {
            EXPECT_EQ(login("other", "right"), 0);
        }
    }
    EXPECT_EQ(seen, max_failures);
}

TEST_F(UserPassCheck, WhoeverKnowsAPasswordUnblocksANameBy64OthersWithARightLoginAfterEachFour)
{
    int made = 0;
    int in_a_row = 0;
    const auto guess = [&made, &in_a_row](const std::string &name) {
        if (in_a_row == max_failures - 1) {
            ASSERT_EQ(login("other", "right"), 0);
            in_a_row = 0;
            ++made;
        }
        logins = 0;
        ASSERT_EQ(login(name.c_str(), "wrong"), VELM_BREAK_LOGIN);
        ASSERT_EQ(logins, 1) << name << " is blocked";
        ++in_a_row;
        ++made;
    };
    for (int i = 0; i < max_failures; ++i) {
        guess("admin");
    }
    for (int i = 0; i < 63; ++i) {
        guess("name" + std::to_string(i));
    }
    EXPECT_TRUE(is_blocked("admin"));
    guess("one more");
    EXPECT_FALSE(is_blocked("admin"));
    constexpr int wrong = max_failures + 64;
    EXPECT_EQ(made, wrong + (wrong - 1) / (max_failures - 1));
}

TEST_F(UserPassCheck, ANameIsRefusedFor60SecondsFromItsFirstFailure)
{
    for (int i = 0; i < max_failures; ++i) {
        fake_clock_set(start_time + 10 * i);
        fail_between_right_ones("admin", 1);
    }
    fake_clock_set(start_time + 59);
    EXPECT_TRUE(is_blocked("admin"));
    EXPECT_TRUE(log_.contains("login blocked (1 seconds remained) for this user name"));
    fake_clock_set(start_time + 60);
    EXPECT_EQ(login("admin", "right"), 0);
    fail_between_right_ones("admin", max_failures - 1);
    EXPECT_FALSE(is_blocked("admin")) << "a new row begins with nothing";
}

TEST_F(UserPassCheck, ARefusedAttemptOfANameIsNotCounted)
{
    fail_between_right_ones("admin", max_failures);
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(is_blocked("admin"));
    }
    EXPECT_EQ(login("other", "right"), 0) << "nor for all";
    fake_clock_set(start_time + 60);
    EXPECT_EQ(login("admin", "right"), 0);
}

TEST_F(UserPassCheck, ANameThatNoAccountHasIsRefusedToo)
{
    fail_between_right_ones("nobody", max_failures);
    EXPECT_TRUE(is_blocked("nobody"));
    EXPECT_FALSE(is_blocked("nobod"));
    fail_between_right_ones("Nobody", 1);
    EXPECT_FALSE(is_blocked("Nobody")) << "another name";
}

TEST_F(UserPassCheck, LongNamesAreToldApartByTheirLastCharacter)
{
    const std::string beginning(1023, 'n');
    fail_between_right_ones(beginning + "a", max_failures);
    EXPECT_TRUE(is_blocked(beginning + "a"));
    EXPECT_FALSE(is_blocked(beginning + "b"));
}

TEST_F(UserPassCheck, OfSixtyFiveNamesTheOneWhoseLastFailureIsLongestAgoIsForgotten)
{
    std::vector<std::string> names;
    for (int number = 0; number < 64; ++number) {
        names.push_back("name" + std::to_string(number));
        fail_between_right_ones(names.back(), max_failures);
    }
    EXPECT_TRUE(is_blocked(names.front()));
    fail_between_right_ones("one more", 1);
    for (std::size_t number = 1; number < names.size(); ++number) {
        EXPECT_TRUE(is_blocked(names[number])) << number;
    }
    EXPECT_FALSE(is_blocked(names.front()));
}

TEST_F(UserPassCheck, ARightPasswordGivesItsNamesPlaceBack)
{
    fail_between_right_ones("admin", 1);
    for (int number = 0; number < 63; ++number) {
        fail_between_right_ones("name" + std::to_string(number), max_failures);
    }
    EXPECT_EQ(login("admin", "right"), 0);
    fail_between_right_ones("one more", 1);
    EXPECT_TRUE(is_blocked("name0"));
}

TEST_F(UserPassCheck, AClockThatWasSetBackBlocksNobody)
{
    fail(max_failures);
    fake_clock_set(start_time - 1);
    EXPECT_EQ(login("admin", "right"), 0);
    fake_clock_set(start_time);
    fail_between_right_ones("admin", max_failures);
    fake_clock_set(start_time - 3600);
    EXPECT_EQ(login("admin", "right"), 0);
    fail(max_failures, -3600);
    EXPECT_EQ(login("admin", "right"), VELM_BREAK_LOGIN) << "counts as ever by the new time";
}

TEST_F(UserPassCheck, AClockThatIsSetBackALittleMakesNoBlockLonger)
{
    fail(max_failures);
    fake_clock_set(start_time + 3);
    fake_clock_advance_steady(59);
    EXPECT_EQ(login("admin", "right"), VELM_BREAK_LOGIN);
    fake_clock_advance_steady(1);
    EXPECT_EQ(login("admin", "right"), 0);
}

TEST_F(UserPassCheck, TheThrottleOutlivesAReload)
{
    fail(max_failures);
    velm_request_user_pass_check_init(nullptr);
    EXPECT_TRUE(log_.has("TRACE velm_request_user_pass_check - velm_request_user_pass_check_init"));
    EXPECT_FALSE(shadow_is_used());
    velm_config config{};
    config.accounts_shadow = true;
    velm_request_user_pass_check_init(&config);
    EXPECT_TRUE(shadow_is_used());
    config.accounts_shadow = false;
    velm_request_user_pass_check_init(&config);
    EXPECT_FALSE(shadow_is_used());
    EXPECT_EQ(login("admin", "right"), VELM_BREAK_LOGIN);
}

TEST_F(UserPassCheck, DoesNotBeginWhenTheRequestHasGone)
{
    velm_request_preprocessor p;
    p.client_username = "admin";
    p.client_password = "wrong";
    p.request_gone = true;
    for (int i = 0; i <= max_failures; ++i) {
        make_user_pass_check(&p);
    }
    turn_test_loop();
    EXPECT_EQ(logins, 0);
    EXPECT_EQ(login("admin", "right"), 0);
}

TEST_F(UserPassCheck, ExplainsARefusalWithoutNamingTheUser)
{
    const auto refused = [](const char *username) {
        velm_request_preprocessor p;
        p.client_username = username;
        p.client_password = "wrong";
        make_user_pass_check(&p);
        turn_test_loop();
        return std::pair<std::string, std::string>{p.explained != nullptr ? p.explained : "",
                                                   p.hint};
    };
    fake_clock_set(start_time);
    EXPECT_EQ(refused("eve"),
              (std::pair<std::string, std::string>{"its user name or password is wrong", ""}));
    fail_between_right_ones("eve", max_failures - 1);
    EXPECT_EQ(refused("eve"),
              (std::pair<std::string, std::string>{
                  "too many wrong passwords came for its user name, so its logins are blocked",
                  "60 s more"}));
    for (int i = 0; i < max_failures; ++i) {
        login("admin", "wrong");
    }
    EXPECT_EQ(refused("bob"),
              (std::pair<std::string, std::string>{
                  "too many wrong passwords came, so logins are blocked", "60 s more"}));
}

} // namespace
