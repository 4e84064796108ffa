#include "velm_user_auth_passwd.h"

#include <crypt.h>
#include <openssl/crypto.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <vector>

#include "handles/memory.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "velm_user_auth_passwd";
constexpr char login_name[] = "velm_user_auth_passwd_login";
constexpr std::size_t entry_size_default = 16384;
constexpr std::size_t entry_size_limit = 1024 * 1024;

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

/// A locked account's field, or one that only says "the hash is elsewhere": no password matches it,
/// and crypt might fail on it in a way that looks like a match.
bool is_no_setting(std::string_view stored)
{
    return stored.starts_with('*') || stored.starts_with('!') || stored == "x";
}

bool password_matches(const char *stored, const char *password)
{
    if (is_no_setting(stored)) {
        return false;
    }
    errno = 0;
    const char *const hash = crypt(password, stored);
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

} // namespace

int velm_user_auth_passwd_login(const char *username, const char *password)
{
    REQUIRE_NOT_NULL(username, "username");
    REQUIRE_NOT_NULL(password, "password");
    LOG_TRACE("%s - user=%s", __func__, username);
    if (*username == '\0' || *password == '\0' || is_root(username)) {
        return 0;
    }
    passwd account{};
    std::vector<char> buffer = make_entry_buffer();
    const wiped_at_end wiping{&buffer};
    if (!find_account(username, &account, &buffer)) {
        return 0;
    }
    if (is_root(account.pw_name)) {
        return 0; // found under another spelling
    }
    LOG_TRACE("%s - pw_name=%s, pw_passwd=%s", __func__, account.pw_name, account.pw_passwd);
    if (!password_matches(account.pw_passwd, password)) {
        LOG_ERROR("%s - invalid password", __func__);
        return 0;
    }
    LOG_TRACE("%s - correct password", __func__);
    return 1;
}
