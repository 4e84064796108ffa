#include "velm_user_auth_passwd.h"

#include <crypt.h>
#include <gtest/gtest.h>
#include <pwd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "fakes/captured_log.h"
#include "logger/fatal.h"

namespace {

/// What the stand-ins for the password database and for crypt do, and what they saw.
struct system_seen {
    std::map<std::string, std::string> accounts; // name, password field
    const char *canonical_name = nullptr;        // what the database says to any name
    int error = 0;
    int errno_only = 0;     // with the answer that there is no such account
    std::size_t needed = 0; // a smaller buffer gives ERANGE
    std::vector<std::size_t> sizes;
    bool crypt_is_real = false;
    const char *hash = nullptr; // what crypt gives otherwise
    int crypt_error = 0;
    int crypt_calls = 0;
};
system_seen system_state;

} // namespace

extern "C" int getpwnam_r(const char *name, passwd *account, char *buffer, size_t size,
                          passwd **result)
{
    system_state.sizes.push_back(size);
    *result = nullptr;
    if (system_state.errno_only != 0) {
        errno = system_state.errno_only;
        return 0;
    }
    if (system_state.error != 0) {
        return system_state.error;
    }
    const auto found = system_state.accounts.find(name);
    if (found == system_state.accounts.end()) {
        return 0;
    }
    const std::size_t name_size = found->first.size() + 1;
    const std::size_t field_size = found->second.size() + 1;
    if (size < system_state.needed || size < name_size + field_size) {
        return ERANGE;
    }
    account->pw_name = std::strcpy(buffer, found->first.c_str());
    if (system_state.canonical_name != nullptr) {
        static std::string canonical;
        canonical = system_state.canonical_name;
        account->pw_name = canonical.data();
    }
    account->pw_passwd = std::strcpy(buffer + name_size, found->second.c_str());
    *result = account;
    return 0;
}

extern "C" char *crypt(const char *phrase, const char *setting)
{
    ++system_state.crypt_calls;
    if (system_state.crypt_is_real) {
        static crypt_data data;
        return crypt_r(phrase, setting, &data);
    }
    errno = system_state.crypt_error;
    static std::string hash;
    if (system_state.hash == nullptr) {
        return nullptr;
    }
    hash = system_state.hash;
    return hash.data();
}

namespace {

// Made with `openssl passwd -6 -salt saltstring 'Hello world!'`.
constexpr char sha512_hash[] = "$6$saltstring$svn8UoSVapNtMuq1ukKS4tPQd8iKwSMHWjl/"
                               "O817G3uBnIFNjnQJuesI68u4OTLiBFdcbYEdFCoEOfaS35inz1";

class Passwd : public testing::Test {
  protected:
    Passwd()
    {
        system_state = {};
        system_state.accounts["admin"] = "stored";
        system_state.hash = "stored";
    }
    captured_log log_;
};

TEST_F(Passwd, TheRightPasswordIsCorrect)
{
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 1);
    EXPECT_TRUE(log_.has("TRACE velm_user_auth_passwd - velm_user_auth_passwd_login - user=admin"));
    EXPECT_TRUE(log_.has("TRACE velm_user_auth_passwd - velm_user_auth_passwd_login - "
                         "pw_name=admin, pw_passwd=stored"));
    EXPECT_TRUE(log_.has("TRACE velm_user_auth_passwd - velm_user_auth_passwd_login - "
                         "correct password"));
}

TEST_F(Passwd, AWrongPasswordIsInvalid)
{
    system_state.hash = "strange";
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 0);
    EXPECT_TRUE(log_.contains("velm_user_auth_passwd_login - invalid password"));
}

TEST_F(Passwd, ARealHashAcceptsItsPasswordAndNoOther)
{
    system_state.crypt_is_real = true;
    system_state.accounts["admin"] = sha512_hash;
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "Hello world!"), 1);
    for (const char *wrong : {"Hello world", "Hello world!!", "hello world!", " Hello world!"}) {
        EXPECT_EQ(velm_user_auth_passwd_login("admin", wrong), 0) << wrong;
    }
}

TEST_F(Passwd, RootIsAlwaysRefusedEvenWithItsRightPassword)
{
    system_state.accounts["root"] = "stored";
    EXPECT_EQ(velm_user_auth_passwd_login("root", "secret"), 0);
    EXPECT_TRUE(system_state.sizes.empty());
    EXPECT_EQ(system_state.crypt_calls, 0);
}

TEST_F(Passwd, OnlyTheExactNameRootIsRefused)
{
    system_state.accounts["rooter"] = "stored";
    system_state.accounts["Root"] = "stored";
    EXPECT_EQ(velm_user_auth_passwd_login("rooter", "secret"), 1);
    EXPECT_EQ(velm_user_auth_passwd_login("Root", "secret"), 1);
}

TEST_F(Passwd, AnAccountThatTurnsOutToBeRootIsRefusedToo)
{
    system_state.accounts["ROOT"] = "stored";
    system_state.canonical_name = "root"; // of a database that ignores case
    EXPECT_EQ(velm_user_auth_passwd_login("ROOT", "secret"), 0);
    EXPECT_EQ(system_state.crypt_calls, 0);
}

TEST_F(Passwd, AnEmptyNameOrPasswordIsRefusedUnseen)
{
    system_state.accounts[""] = "stored";
    EXPECT_EQ(velm_user_auth_passwd_login("", "secret"), 0);
    EXPECT_EQ(velm_user_auth_passwd_login("admin", ""), 0);
    EXPECT_TRUE(system_state.sizes.empty());
}

TEST_F(Passwd, AnUnknownUserIsRefused)
{
    EXPECT_EQ(velm_user_auth_passwd_login("nobody-here", "secret"), 0);
    EXPECT_TRUE(log_.contains("velm_user_auth_passwd_login - unknown user"));
}

TEST_F(Passwd, AFailingDatabaseRefuses)
{
    system_state.error = EIO;
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 0);
    EXPECT_TRUE(log_.has("ERROR velm_user_auth_passwd - velm_user_auth_passwd_login - "
                         "getpwnam_r error: 5"));
}

TEST_F(Passwd, AnEntryLongerThanTheUsualIsReadWithALargerBuffer)
{
    system_state.needed = 100000;
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 1);
    EXPECT_GE(system_state.sizes.back(), 100000U);
}

TEST_F(Passwd, ADatabaseThatNeverHasRoomEnoughRefuses)
{
    system_state.error = ERANGE;
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 0);
    EXPECT_TRUE(log_.contains("getpwnam_r error: 34"));
    EXPECT_LE(system_state.sizes.size(), 16U);
}

class NoSetting : public Passwd, public testing::WithParamInterface<const char *> {};

TEST_P(NoSetting, IsAWrongPasswordWithoutAskingCrypt)
{
    system_state.accounts["admin"] = GetParam();
    system_state.hash = GetParam();
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 0);
    EXPECT_EQ(system_state.crypt_calls, 0);
    EXPECT_TRUE(log_.contains("velm_user_auth_passwd_login - invalid password"));
}

INSTANTIATE_TEST_SUITE_P(Fields, NoSetting,
                         testing::Values("*", "!", "x", "!!", "*0", "*LK*", "!$6$salt$hash"));

TEST_F(Passwd, OnlyTheWholeFieldXSaysThatTheHashIsElsewhere)
{
    system_state.accounts["admin"] = system_state.hash = "xy";
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 1);
    EXPECT_EQ(system_state.crypt_calls, 1);
}

TEST_F(Passwd, AFailedHashIsAWrongPasswordWhateverTheField)
{
    for (const char *failure : {"*0", "*1"}) {
        for (const char *field : {"", "stored"}) {
            system_state.accounts["admin"] = field;
            system_state.hash = failure;
            EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 0) << failure << field;
        }
    }
}

TEST_F(Passwd, AnEmptyFieldAcceptsAnyPasswordThatCryptCanHash)
{
    system_state.accounts["admin"] = "";
    system_state.hash = "anything";
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 1);
}

TEST_F(Passwd, ComparesOverTheLengthOfTheStoredField)
{
    system_state.hash = "stored-and-more";
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 1);
    system_state.hash = "store";
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 0);
    system_state.hash = "Stored";
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 0);
}

TEST_F(Passwd, WithoutAResultFromCryptEndsTheProcess)
{
    system_state.hash = nullptr;
    system_state.crypt_error = EINVAL;
    EXPECT_DEATH((void)velm_user_auth_passwd_login("admin", "secret"),
                 "velm_user_auth_passwd_login: crypt failed errno: 22 error: Invalid argument");
}

TEST_F(Passwd, WithoutANameOrPasswordEndsTheProcess)
{
    EXPECT_DEATH((void)velm_user_auth_passwd_login(nullptr, "secret"),
                 "velm_user_auth_passwd_login: username is null: null reference");
    EXPECT_DEATH((void)velm_user_auth_passwd_login("admin", nullptr),
                 "velm_user_auth_passwd_login: password is null: null reference");
}

TEST_F(Passwd, ALookUpWithoutMemoryEndsTheProcess)
{
    fatal_install_memory_handler();
    system_state.error = ENOMEM;
    EXPECT_DEATH((void)velm_user_auth_passwd_login("admin", "secret"), "not enough memory");
    system_state.error = 0;
    system_state.errno_only = ENOMEM;
    EXPECT_DEATH((void)velm_user_auth_passwd_login("admin", "secret"), "not enough memory");
}

} // namespace
