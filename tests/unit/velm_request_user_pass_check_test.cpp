// Before libevhtp, whose regular-expression header clashes with the system's.
#include <gtest/gtest.h>

#include "velm_request_user_pass_check.h"

#include <cstring>
#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "fakes/paused_request.h"
#include "velm_request_preprocessor_record.h"
#include "velm_user_auth_passwd.h"

namespace {

int logins = 0;
std::vector<int> reported;

} // namespace

int velm_user_auth_passwd_login(const char *username, const char *password)
{
    ++logins;
    return std::strcmp(username, "admin") == 0 && std::strcmp(password, "right") == 0 ? 1 : 0;
}

void velm_request_preprocessor_continue(velm_request_preprocessor *, int break_code)
{
    reported.push_back(break_code);
}

namespace {

constexpr std::time_t start_time = 1700000000;

class UserPassCheck : public testing::Test {
  protected:
    UserPassCheck()
    {
        test_loop();
        // The module counts for the whole process: end the block that an earlier test left.
        fake_clock_set(start_time - 3600);
        EXPECT_EQ(login("admin", "right"), 0);
        fake_clock_set(start_time);
        logins = 0;
    }
    ~UserPassCheck() override
    {
        fake_clock_set(start_time + 1000000);
        login("admin", "right");
        fake_clock_reset();
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

    /// Failures at these seconds after the start.
    static void fail_at(const std::vector<int> &seconds)
    {
        for (const int second : seconds) {
            fake_clock_set(start_time + second);
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
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(login(nullptr, nullptr), VELM_BREAK_LOGIN);
    }
    EXPECT_EQ(login("admin", "right"), VELM_BREAK_LOGIN);
}

TEST_F(UserPassCheck, AfterFiveFailuresTheRightPasswordIsRefusedUnseenWithTheSecondsLeft)
{
    fail_at({0, 0, 0, 0, 0});
    logins = 0;
    EXPECT_EQ(login("admin", "right"), VELM_BREAK_LOGIN);
    EXPECT_EQ(logins, 0);
    EXPECT_TRUE(log_.has("WARN velm_request_user_pass_check - make_user_pass_check - "
                         "login blocked (60 seconds remained)"));
}

TEST_F(UserPassCheck, AfterFourFailuresTheRightPasswordIsAcceptedAndTheCountIsZeroAgain)
{
    fail_at({0, 0, 0, 0});
    EXPECT_EQ(login("admin", "right"), 0);
    fail_at({0, 0, 0, 0});
    EXPECT_EQ(login("admin", "right"), 0);
}

TEST_F(UserPassCheck, IsBlockedFor60SecondsFromTheFirstFailure)
{
    fail_at({0, 10, 20, 30, 40});
    fake_clock_set(start_time + 59);
    EXPECT_EQ(login("admin", "right"), VELM_BREAK_LOGIN);
    EXPECT_TRUE(log_.contains("login blocked (1 seconds remained)"));
    fake_clock_set(start_time + 60);
    EXPECT_EQ(login("admin", "right"), 0);
}

TEST_F(UserPassCheck, TheCountIsZeroAgainAfterTheBlock)
{
    fail_at({0, 0, 0, 0, 0});
    fail_at({60, 60, 60, 60});
    EXPECT_EQ(login("admin", "right"), 0) << "four failures of a new series do not block";
    fail_at({60, 60, 60, 60, 60});
    EXPECT_EQ(login("admin", "right"), VELM_BREAK_LOGIN);
    EXPECT_TRUE(log_.contains("login blocked (60 seconds remained)"));
}

TEST_F(UserPassCheck, ABlockedAttemptIsNotCounted)
{
    fail_at({0, 0, 0, 0, 0, 30, 59});
    fake_clock_set(start_time + 60);
    EXPECT_EQ(login("admin", "right"), 0);
}

TEST_F(UserPassCheck, ASeriesOfFailuresHasNoEndButASuccess)
{
    fail_at({0, 100, 200, 300, 400});
    EXPECT_EQ(login("admin", "right"), 0) << "the fifth came long after the block would be over";
}

TEST_F(UserPassCheck, TheThrottleOutlivesAReload)
{
    fail_at({0, 0, 0, 0, 0});
    velm_request_user_pass_check_init(nullptr);
    EXPECT_TRUE(log_.has("TRACE velm_request_user_pass_check - velm_request_user_pass_check_init"));
    EXPECT_EQ(login("admin", "right"), VELM_BREAK_LOGIN);
}

TEST_F(UserPassCheck, DoesNotBeginWhenTheRequestHasGone)
{
    velm_request_preprocessor p;
    p.client_username = "admin";
    p.client_password = "wrong";
    p.request_gone = true;
    for (int i = 0; i < 6; ++i) {
        make_user_pass_check(&p);
    }
    turn_test_loop();
    EXPECT_EQ(logins, 0);
    EXPECT_EQ(login("admin", "right"), 0);
}

} // namespace
