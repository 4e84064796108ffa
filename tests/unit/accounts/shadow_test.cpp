#include "accounts/shadow.h"

#include <gtest/gtest.h>
#include <shadow.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "fakes/captured_log.h"
#include "fakes/fake_clock.h"
#include "logger/fatal.h"

namespace {

/// What the stand-in for the shadow database holds.
struct database {
    bool has_entry = true;
    spwd entry{};
    std::string field = "$6$salt$hash";
    int error = 0;
    int errno_only = 0; // with the answer that there is no such entry
    bool is_readable = true;
    std::size_t needed = 0; // a smaller buffer gives ERANGE
};
database shadow;

constexpr long none = -1;

} // namespace

extern "C" int faccessat(int, const char *, int, int) noexcept
{
    errno = EACCES;
    return shadow.is_readable ? 0 : -1;
}

extern "C" int getspnam_r(const char *name, spwd *entry, char *buffer, size_t size, spwd **result)
{
    *result = nullptr;
    errno = shadow.errno_only;
    if (shadow.error != 0 || std::string{name} != "admin" || !shadow.has_entry) {
        return shadow.error;
    }
    if (size < shadow.needed || size < shadow.field.size() + 1) {
        return ERANGE;
    }
    *entry = shadow.entry;
    entry->sp_pwdp = std::strcpy(buffer, shadow.field.c_str());
    *result = entry;
    return 0;
}

namespace {

constexpr long today = 20000;
constexpr std::time_t day = 24L * 60 * 60;

class Shadow : public testing::Test {
  protected:
    Shadow()
    {
        shadow = {};
        shadow.entry.sp_lstchg = today - 10;
        shadow.entry.sp_min = shadow.entry.sp_max = shadow.entry.sp_warn = none;
        shadow.entry.sp_inact = shadow.entry.sp_expire = none;
        set_day(today);
    }

    static void set_day(long number)
    {
        fake_clock_set(number * day);
    }

    bool lets_in()
    {
        return shadow_field_for_login("admin", &buffer_) != nullptr;
    }

    bool refuses(const char *why)
    {
        return !lets_in() && log_.contains(why);
    }

    captured_log log_;
    std::vector<char> buffer_;
};

TEST_F(Shadow, IsNotUsedUntilItIsAskedFor)
{
    EXPECT_FALSE(shadow_is_used());
    shadow_use(true);
    EXPECT_TRUE(shadow_is_used());
    shadow_use(false);
    EXPECT_FALSE(shadow_is_used());
}

TEST_F(Shadow, HasTheFieldOfTheAccount)
{
    EXPECT_STREQ(shadow_field_for_login("admin", &buffer_), "$6$salt$hash");
    EXPECT_STREQ(shadow_field_of("admin", &buffer_), "$6$salt$hash");
    EXPECT_TRUE(log_.lines().empty()) << "the field is a secret";
}

TEST_F(Shadow, AnAccountWithoutAnEntryIsRefused)
{
    shadow.has_entry = false;
    EXPECT_TRUE(refuses("velm_user_auth_passwd_login - no shadow entry"));
    EXPECT_EQ(shadow_field_of("admin", &buffer_), nullptr);
}

TEST_F(Shadow, ADatabaseThatCannotBeReadRefusesAndSaysWhy)
{
    shadow.error = EACCES;
    EXPECT_TRUE(refuses("velm_user_auth_passwd_login - getspnam_r error: 13"));
    EXPECT_EQ(shadow_error(), EACCES);
    shadow.error = 0;
    EXPECT_EQ(shadow_error(), 0);
}

TEST_F(Shadow, ADatabaseThatCannotBeReadIsNoticedThoughAnotherSourceWasAskedThen)
{
    shadow.has_entry = false;
    shadow.is_readable = false;
    EXPECT_TRUE(refuses("velm_user_auth_passwd_login - getspnam_r error: 13"));
    EXPECT_EQ(shadow_error(), EACCES);
}

TEST_F(Shadow, ALookUpWithoutMemoryEndsTheProcess)
{
    fatal_install_memory_handler();
    shadow.error = ENOMEM;
    EXPECT_DEATH((void)lets_in(), "not enough memory");
    shadow.error = 0;
    shadow.has_entry = false;
    shadow.errno_only = ENOMEM;
    EXPECT_DEATH((void)lets_in(), "not enough memory");
}

TEST_F(Shadow, ALongEntryIsReadWithALargerBufferUpToALimit)
{
    shadow.needed = 100000;
    EXPECT_TRUE(lets_in());
    shadow.error = ERANGE;
    EXPECT_TRUE(refuses("getspnam_r error: 34"));
}

TEST_F(Shadow, AnAccountLogsInUntilTheDayOnWhichItExpires)
{
    shadow.entry.sp_expire = today + 1;
    EXPECT_TRUE(lets_in());
    set_day(today + 1);
    EXPECT_TRUE(refuses("velm_user_auth_passwd_login - the account has expired"));
    shadow.entry.sp_expire = 0;
    EXPECT_FALSE(lets_in());
}

TEST_F(Shadow, APasswordThatMustBeChangedFirstIsRefused)
{
    shadow.entry.sp_lstchg = 0;
    EXPECT_TRUE(refuses("velm_user_auth_passwd_login - the password must be changed first"));
    shadow.entry.sp_lstchg = 1;
    EXPECT_TRUE(lets_in());
    shadow.entry.sp_lstchg = none;
    EXPECT_TRUE(lets_in());
}

TEST_F(Shadow, AnOldPasswordServesUntilItsDaysOfGraceAreOver)
{
    shadow.entry.sp_max = 6;
    shadow.entry.sp_inact = 4;
    EXPECT_TRUE(lets_in()) << "on its tenth day";
    set_day(today + 1);
    EXPECT_TRUE(refuses("velm_user_auth_passwd_login - the password is too old"));
}

TEST_F(Shadow, APasswordWithoutAnEndOfItsGraceServesOn)
{
    shadow.entry.sp_max = 1;
    EXPECT_TRUE(lets_in());
    shadow.entry.sp_max = none;
    shadow.entry.sp_inact = 1;
    EXPECT_TRUE(lets_in());
}

TEST_F(Shadow, AClockBeforeTheLastChangeKeepsNobodyOut)
{
    shadow.entry.sp_max = 6;
    shadow.entry.sp_inact = 4;
    set_day(0);
    EXPECT_TRUE(lets_in());
}

} // namespace
