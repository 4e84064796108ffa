#include "velm_user_auth_passwd.h"

#include <crypt.h>
#include <openssl/crypto.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "accounts/shadow.h"
#include "handles/exhaustion.h"
#include "handles/secret.h"
#include "logger/fatal.h"
#include "metrics/metrics.h"

namespace {

constexpr char log_category[] = "velm_user_auth_passwd";
constexpr char login_name[] = "velm_user_auth_passwd_login";
constexpr std::size_t entry_size_default = 16384;
constexpr std::size_t entry_size_limit = 1024 * 1024;
constexpr std::size_t setting_size_limit = 384; // what crypt makes is shorter
constexpr int accounts_looked_through = 64;

struct module_state {
    /// What a password is hashed with when no account's hash can be: how the accounts of this device
    /// are hashed, without anybody's hash. Empty until it is wanted.
    std::string other_setting;
};
module_state state;

bool is_root(std::string_view name)
{
    return name == "root";
}

std::vector<char> make_entry_buffer()
{
    const allocation_name naming{login_name, "buf"};
    const long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    return std::vector<char>(size == -1 ? entry_size_default : static_cast<std::size_t>(size));
}

/// Looks the account up; its texts lie in `buffer`. False, and logged, without one.
bool find_account(const char *username, passwd *account, std::vector<char> *buffer)
{
    passwd *found = nullptr;
    errno = 0;
    int rc = getpwnam_r(username, account, buffer->data(), buffer->size(), &found);
    // The system's size is a hint only: an entry may need more.
    while (rc == ERANGE && buffer->size() < entry_size_limit) {
        buffer->resize(buffer->size() * 2);
        rc = getpwnam_r(username, account, buffer->data(), buffer->size(), &found);
    }
    // The look-up may go on to another source and find nothing there.
    memory_is_exhausted_if(rc == ENOMEM || (found == nullptr && errno == ENOMEM));
    if (rc != 0) {
        LOG_ERROR("%s - getpwnam_r error: %d", login_name, rc);
        return false;
    }
    if (found == nullptr) {
        LOG_ERROR("%s - unknown user", login_name);
        return false;
    }
    return true;
}

bool is_salt(char character)
{
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '.' && character <= '9'); // the slash is between them
}

bool is_never_in_a_setting(char character)
{
    switch (character) { // a search in a text would cost each login 20,000 instructions
    case ':':
    case ';':
    case '*':
    case '!':
    case '\\':
        return true;
    default:
        return character <= ' ' || character > '~';
    }
}

/// A locked account's field, or one that only says "the hash is elsewhere": no password matches it,
/// and crypt might fail on it in a way that looks like a match. Some libraries give no result for it,
/// which would end the process: so it never gets what has the form of no method.
bool is_no_setting(std::string_view stored)
{
    constexpr std::size_t extended_des_setting = 9;
    if (stored.size() < 2 || std::any_of(stored.begin(), stored.end(), is_never_in_a_setting)) {
        return true;
    }
    if (stored.front() == '$') { // a method's name stands between two
        const std::size_t end = stored.find('$', 1);
        return end == std::string_view::npos || end == 1;
    }
    if (stored.front() == '_') {
        return stored.size() < extended_des_setting;
    }
    return !is_salt(stored[0]) || !is_salt(stored[1]);
}

/// The same method and cost, with the same salt where that is a part of its own, and no hash.
std::string setting_without_hash(std::string_view stored)
{
    constexpr std::size_t salt_of_des = 2;
    constexpr std::size_t salt_of_extended_des = 9;
    std::size_t kept = stored.starts_with('_') ? salt_of_extended_des : salt_of_des;
    if (stored.starts_with('$')) {
        kept = stored.rfind('$') + 1;
    }
    std::string setting{stored};
    std::fill(setting.begin() + static_cast<std::ptrdiff_t>(std::min(kept, setting.size())),
              setting.end(), '.');
    return setting;
}

void remember_setting(std::string_view stored)
{
    if (!is_no_setting(stored) && stored.size() < setting_size_limit) {
        state.other_setting = setting_without_hash(stored);
    }
}

bool is_in_shadow(const passwd &account)
{
    return shadow_is_used() && std::string_view{account.pw_passwd} == shadow_mark;
}

/// Where nobody has logged in yet, the first account that has a hash tells how this device hashes.
void find_other_setting()
{
    std::vector<char> buffer;
    const wiped_at_end wiping{&buffer};
    setpwent();
    for (int i = 0; i < accounts_looked_through && state.other_setting.empty(); ++i) {
        const passwd *const account = getpwent();
        if (account == nullptr) {
            break;
        }
        const char *field = account->pw_passwd;
        if (field != nullptr && is_in_shadow(*account)) {
            field = shadow_field_of(account->pw_name, &buffer);
        }
        remember_setting(field != nullptr ? field : "");
    }
    endpwent();
    if (state.other_setting.empty()) {
        state.other_setting = "$6$..........$"; // the usual method, with its usual cost
    }
}

/// A refusal takes as long as that of a wrong password, or the time would tell which names are those
/// of accounts. What comes out matches nothing, and may be no hash at all.
void hash_for_nothing(const char *password)
{
    if (state.other_setting.empty()) {
        find_other_setting();
    }
    metrics_count(metric::password_hashes);
    (void)crypt(password, state.other_setting.c_str());
}

bool password_matches(const char *stored, const char *password)
{
    if (*stored == '\0') {
        return true; // the account asks for no password, and some libraries cannot hash with this
    }
    if (is_no_setting(stored)) {
        hash_for_nothing(password);
        return false;
    }
    remember_setting(stored);
    metrics_count(metric::password_hashes);
    errno = 0;
    const char *const hash = crypt(password, stored);
    if (hash == nullptr && errno == ERANGE) {
        return false; // longer than crypt takes: whoever sends that must not end the process
    }
    if (hash == nullptr) {
        FATAL("%s: crypt failed errno: %i error: %s", login_name, errno, std::strerror(errno));
    }
    const std::size_t compared = std::strlen(stored);
    // "*0" and "*1" are how crypt says that it failed.
    if (*hash == '*' || std::strlen(hash) < compared) {
        return false;
    }
    return CRYPTO_memcmp(stored, hash, compared) == 0;
}

/// The account that may log in with a password of its own; false, and logged, when there is none.
bool find_login(const char *username, passwd *account, std::vector<char> *buffer)
{
    if (is_root(username)) {
        LOG_ERROR("%s - root may not log in", login_name);
        return false;
    }
    if (!find_account(username, account, buffer)) {
        return false;
    }
    if (is_root(account->pw_name)) {
        LOG_ERROR("%s - root may not log in", login_name); // found under another spelling
        return false;
    }
    return true;
}

/// What the password is compared with; null, and logged, when the shadow database does not let the
/// account log in.
const char *stored_field(const passwd &account, std::vector<char> *buffer)
{
    return is_in_shadow(account) ? shadow_field_for_login(account.pw_name, buffer)
                                 : account.pw_passwd;
}

} // namespace

int velm_user_auth_passwd_login(const char *username, const char *password)
{
    REQUIRE_NOT_NULL(username, "username");
    REQUIRE_NOT_NULL(password, "password");
    LOG_TRACE("%s - user=%s", __func__, username);
    if (*username == '\0' || *password == '\0') {
        LOG_ERROR("%s - empty user name or password", __func__);
        return 0;
    }
    passwd account{};
    std::vector<char> buffer = make_entry_buffer();
    const wiped_at_end wiping{&buffer};
    if (!find_login(username, &account, &buffer)) {
        hash_for_nothing(password);
        return 0;
    }
    LOG_TRACE("%s - pw_name=%s, pw_passwd=%s", __func__, account.pw_name, account.pw_passwd);
    std::vector<char> shadow_buffer;
    const wiped_at_end wiping_shadow{&shadow_buffer};
    const char *const stored = stored_field(account, &shadow_buffer);
    if (stored == nullptr) {
        hash_for_nothing(password);
        return 0;
    }
    if (!password_matches(stored, password)) {
        LOG_ERROR("%s - invalid password", __func__);
        return 0;
    }
    LOG_TRACE("%s - correct password", __func__);
    return 1;
}
