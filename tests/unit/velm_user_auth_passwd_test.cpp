#include "velm_user_auth_passwd.h"

#include <crypt.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <shadow.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "accounts/shadow.h"
#include "fakes/captured_log.h"
#include "logger/fatal.h"

namespace {

/// What the stand-ins for the password database and for crypt do, and what they saw.
struct system_seen {
    std::map<std::string, std::string> accounts; // name, password field
    std::map<std::string, std::string> shadow;   // the same of the shadow database
    int shadow_look_ups = 0;
    const char *canonical_name = nullptr; // what the database says to any name
    int error = 0;
    int errno_only = 0;     // with the answer that there is no such account
    std::size_t needed = 0; // a smaller buffer gives ERANGE
    std::vector<std::size_t> sizes;
    bool crypt_is_real = false;
    const char *hash = nullptr; // what crypt gives otherwise
    int crypt_error = 0;
    int crypt_calls = 0;
    std::vector<std::string> settings; // that crypt was called with
    std::vector<std::string> listed;   // password fields of all accounts, in the database's order
    std::size_t next_listed = 0;
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

extern "C" int faccessat(int, const char *, int, int) noexcept
{
    return 0; // whatever this user may read
}

extern "C" int getspnam_r(const char *name, spwd *entry, char *buffer, size_t size, spwd **result)
{
    ++system_state.shadow_look_ups;
    *result = nullptr;
    const auto found = system_state.shadow.find(name);
    if (found == system_state.shadow.end()) {
        return 0;
    }
    if (size < found->second.size() + 1) {
        return ERANGE;
    }
    entry->sp_pwdp = std::strcpy(buffer, found->second.c_str());
    entry->sp_lstchg = entry->sp_max = entry->sp_inact = entry->sp_expire = -1;
    *result = entry;
    return 0;
}

extern "C" void setpwent()
{
    system_state.next_listed = 0;
}

extern "C" void endpwent()
{
}

extern "C" passwd *getpwent()
{
    static passwd account;
    if (system_state.next_listed == system_state.listed.size()) {
        return nullptr;
    }
    static std::string name;
    name = "account" + std::to_string(system_state.next_listed);
    account.pw_name = name.data();
    account.pw_passwd = system_state.listed[system_state.next_listed++].data();
    return &account;
}

extern "C" char *crypt(const char *phrase, const char *setting)
{
    ++system_state.crypt_calls;
    system_state.settings.emplace_back(setting);
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

    /// Once, as long as it takes, and not with what an account holds.
    static void expect_hashed_for_nothing()
    {
        ASSERT_EQ(system_state.settings.size(), 1U);
        EXPECT_NE(system_state.settings[0], "");
        EXPECT_NE(system_state.settings[0], system_state.accounts["admin"]);
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
    expect_hashed_for_nothing();
    EXPECT_TRUE(log_.has("ERROR velm_user_auth_passwd - velm_user_auth_passwd_login - "
                         "root may not log in"));
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
    expect_hashed_for_nothing();
    EXPECT_TRUE(log_.contains("root may not log in"));
}

TEST_F(Passwd, AnEmptyNameOrPasswordIsRefusedUnseen)
{
    system_state.accounts[""] = "stored";
    EXPECT_EQ(velm_user_auth_passwd_login("", "secret"), 0);
    EXPECT_EQ(velm_user_auth_passwd_login("admin", ""), 0);
    EXPECT_TRUE(system_state.sizes.empty());
    EXPECT_EQ(system_state.crypt_calls, 0);
    EXPECT_EQ(log_.count("empty user name or password"), 2);
}

TEST_F(Passwd, AnUnknownUserIsRefusedAfterAHash)
{
    EXPECT_EQ(velm_user_auth_passwd_login("nobody-here", "secret"), 0);
    EXPECT_TRUE(log_.contains("velm_user_auth_passwd_login - unknown user"));
    expect_hashed_for_nothing();
}

TEST_F(Passwd, AnUnknownUserIsNoDangerWhereCryptCannotHash)
{
    system_state.hash = nullptr;
    system_state.crypt_error = EINVAL;
    EXPECT_EQ(velm_user_auth_passwd_login("nobody-here", "secret"), 0);
}

struct setting_case {
    const char *name, *stored, *other;
};
class OtherSetting : public Passwd, public testing::WithParamInterface<setting_case> {};

TEST_P(OtherSetting, OfAnUnknownUserIsThatOfTheLastAccountWithoutItsHash)
{
    system_state.accounts["admin"] = GetParam().stored;
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "wrong"), 0);
    EXPECT_EQ(velm_user_auth_passwd_login("nobody-here", "wrong"), 0);
    EXPECT_EQ(system_state.settings,
              (std::vector<std::string>{GetParam().stored, GetParam().other}));
}

INSTANTIATE_TEST_SUITE_P(
    Methods, OtherSetting,
    testing::Values(setting_case{"Sha512", "$6$rounds=1000$salt$hash", "$6$rounds=1000$salt$...."},
                    setting_case{"Md5", "$1$salt$hash", "$1$salt$...."},
                    setting_case{"Yescrypt", "$y$j9T$salt$hash", "$y$j9T$salt$...."},
                    setting_case{"Bcrypt", "$2b$12$saltandhash", "$2b$12$..........."},
                    setting_case{"Des", "sahash", "sa...."},
                    setting_case{"ExtendedDes", "_J9..salthash", "_J9..salt...."}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(Passwd, TheOtherSettingTakesAsLongAsTheRealOne)
{
    system_state.crypt_is_real = true;
    system_state.accounts["admin"] = sha512_hash;
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "wrong"), 0);
    EXPECT_EQ(velm_user_auth_passwd_login("nobody-here", "wrong"), 0);
    static crypt_data data;
    EXPECT_STRNE(crypt_r("wrong", system_state.settings.at(1).c_str(), &data), "*0");
}

/// In a process of its own, where nobody has logged in yet.
void expect_first_setting(const std::vector<std::string> &fields, const std::string &setting)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            system_state = {};
            system_state.listed = fields;
            system_state.hash = "hash";
            (void)velm_user_auth_passwd_login("nobody-here", "secret");
            const bool right = system_state.settings == std::vector<std::string>{setting};
            std::exit(right ? 0 : 1);
        },
        testing::ExitedWithCode(0), "")
        << setting;
}

TEST(FirstSetting, IsThatOfTheFirstAccountThatHasAHash)
{
    expect_first_setting({"x", "", "*", "!$6$a$b", "$5$rounds=7$salt$hash", "$6$a$b"},
                         "$5$rounds=7$salt$....");
}

TEST(FirstSetting, IsTheUsualOneWhereNoAccountHasAHash)
{
    expect_first_setting({"x", "*"}, "$6$..........$");
    expect_first_setting({}, "$6$..........$");
}

TEST(FirstSetting, IsLookedForAmongTheFirstAccountsOnly)
{
    std::vector<std::string> fields(64, "x");
    fields.emplace_back("$5$a$b");
    expect_first_setting(fields, "$6$..........$");
    expect_first_setting({fields.begin() + 1, fields.end()}, "$5$a$.");
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

TEST_P(NoSetting, IsAWrongPasswordAndNeverGivenToCrypt)
{
    system_state.accounts["admin"] = GetParam();
    system_state.hash = GetParam();
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 0);
    expect_hashed_for_nothing();
    EXPECT_TRUE(log_.contains("velm_user_auth_passwd_login - invalid password"));
}

INSTANTIATE_TEST_SUITE_P(Fields, NoSetting,
                         testing::Values("*", "!", "x", "!!", "*0", "*LK*", "!$6$salt$hash", "a",
                                         "$", "$6", "$6salt", "$$salt$hash", "_J9..sal", "_", "-a",
                                         "a-", "#a", "ab cd", "ab\tcd", "ab:cd", "ab\\cd", "abc*",
                                         "abc!", "ab\x7f", "\xc3\xa9tudes"));

class Setting : public Passwd, public testing::WithParamInterface<const char *> {};

TEST_P(Setting, ThatSomeMethodMayHaveIsAsked)
{
    system_state.accounts["admin"] = system_state.hash = GetParam();
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 1);
    EXPECT_EQ(system_state.crypt_calls, 1);
}

INSTANTIATE_TEST_SUITE_P(Fields, Setting,
                         testing::Values("ab", "./", "Z9", "abcdefghijklm", "_J9..salt",
                                         "_J9..salthashhashhas", "$1$salt$hash", "$2b$12$salt",
                                         "$md5,rounds=904$salt$hash", "$y$j9T$salt$hash",
                                         "$gy$j9T$salt$hash", "$unknown$"));

TEST_F(Passwd, OnlyTheWholeFieldXSaysThatTheHashIsElsewhere)
{
    system_state.accounts["admin"] = system_state.hash = "xy";
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 1);
    EXPECT_EQ(system_state.crypt_calls, 1);
}

TEST_F(Passwd, AFailedHashIsAWrongPasswordWhateverTheField)
{
    for (const char *failure : {"*0", "*1"}) {
        system_state.hash = failure;
        EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 0) << failure;
    }
}

TEST_F(Passwd, AnEmptyFieldAcceptsAnyPasswordButTheEmptyOneWhateverCryptCanDo)
{
    system_state.accounts["admin"] = "";
    for (const char *result : {"anything", "*0", static_cast<const char *>(nullptr)}) {
        system_state.hash = result;
        EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 1);
        EXPECT_EQ(velm_user_auth_passwd_login("admin", ""), 0);
    }
    EXPECT_EQ(system_state.crypt_calls, 0) << "a library may fail on an empty setting";
}

TEST_F(Passwd, APasswordThatIsLongerThanCryptTakesIsAWrongOne)
{
    system_state.hash = nullptr;
    system_state.crypt_error = ERANGE;
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 0);
    EXPECT_TRUE(log_.contains("invalid password"));
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

class ShadowedPasswd : public Passwd {
  protected:
    ShadowedPasswd()
    {
        shadow_use(true);
        system_state.accounts["admin"] = "x";
        system_state.shadow["admin"] = "stored";
    }
    ~ShadowedPasswd() override
    {
        shadow_use(false);
    }
};

TEST_F(ShadowedPasswd, IsTheOneOfTheShadowDatabase)
{
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 1);
    system_state.shadow["admin"] = "other!";
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 0);
    EXPECT_TRUE(log_.contains("invalid password"));
    EXPECT_EQ(log_.count("stored"), 0) << "the hash is a secret";
}

TEST_F(ShadowedPasswd, IsLookedUpOnlyForTheFieldX)
{
    for (const char *field : {"stored", "xx", "X", "*", "!", ""}) {
        system_state.accounts["admin"] = field;
        (void)velm_user_auth_passwd_login("admin", "secret");
    }
    EXPECT_EQ(system_state.shadow_look_ups, 0);
    shadow_use(false);
    system_state.accounts["admin"] = "x";
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 0);
    EXPECT_EQ(system_state.shadow_look_ups, 0);
}

TEST_F(ShadowedPasswd, ThatIsNoSettingIsAWrongOneAfterAHash)
{
    for (const char *field : {"*", "!", "x", "!$6$salt$hash"}) {
        system_state.settings.clear();
        system_state.shadow["admin"] = system_state.hash = field;
        EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 0) << field;
        expect_hashed_for_nothing();
    }
}

TEST_F(ShadowedPasswd, ThatIsEmptyAcceptsAnyAsOneOfTheAccountDoes)
{
    system_state.shadow["admin"] = "";
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 1);
    EXPECT_EQ(velm_user_auth_passwd_login("admin", ""), 0);
}

TEST_F(ShadowedPasswd, OfAnAccountWithoutAnEntryIsAWrongOneAfterAHash)
{
    system_state.shadow.clear();
    EXPECT_EQ(velm_user_auth_passwd_login("admin", "secret"), 0);
    expect_hashed_for_nothing();
    EXPECT_TRUE(log_.contains("velm_user_auth_passwd_login - no shadow entry"));
}

TEST_F(ShadowedPasswd, OfRootIsRefusedUnseen)
{
    system_state.accounts["root"] = "x";
    system_state.shadow["root"] = "stored";
    EXPECT_EQ(velm_user_auth_passwd_login("root", "secret"), 0);
    EXPECT_EQ(system_state.shadow_look_ups, 0);
}

/// In a process of its own, where nobody has logged in yet.
void log_in_with_shadow()
{
    system_state = {};
    system_state.listed = {"*", "x", "x"};
    system_state.shadow["account1"] = "!";
    system_state.shadow["account2"] = "$y$j9T$salt$hash";
    system_state.hash = "hash";
    shadow_use(true);
    (void)velm_user_auth_passwd_login("nobody-here", "secret");
    const std::vector<std::string> wanted{"$y$j9T$salt$...."};
    std::exit(system_state.settings == wanted ? 0 : 1);
}

TEST(FirstSetting, IsThatOfTheFirstShadowedAccountThatHasAHash)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(log_in_with_shadow(), testing::ExitedWithCode(0), "");
}

} // namespace
