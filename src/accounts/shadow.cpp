#include "accounts/shadow.h"

#include <fcntl.h>
#include <paths.h>
#include <shadow.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>

#include "handles/exhaustion.h"
#include "handles/secret.h"
#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "velm_user_auth_passwd";
constexpr char login_name[] = "velm_user_auth_passwd_login";
constexpr std::size_t entry_size_default = 1024;
constexpr std::size_t entry_size_limit = 1024 * 1024;

struct module_state {
    bool is_used = false;
};
module_state state;

struct look_up {
    spwd entry{};
    bool is_found = false;
    int error = 0; // why nothing is known; 0 with no entry: there is none
};

/// Why this process cannot read the file of the database. The C library goes on to other sources then,
/// which find nothing, and does not tell.
int file_error()
{
    const bool is_refused =
        faccessat(AT_FDCWD, _PATH_SHADOW, R_OK, AT_EACCESS) != 0 && errno == EACCES;
    return is_refused ? EACCES : 0;
}

look_up find(const char *name, std::vector<char> *buffer)
{
    look_up found;
    spwd *entry = nullptr;
    buffer->resize(std::max(buffer->size(), entry_size_default));
    errno = 0;
    found.error = getspnam_r(name, &found.entry, buffer->data(), buffer->size(), &entry);
    while (found.error == ERANGE && buffer->size() < entry_size_limit) {
        buffer->resize(buffer->size() * 2);
        found.error = getspnam_r(name, &found.entry, buffer->data(), buffer->size(), &entry);
    }
    memory_is_exhausted_if(found.error == ENOMEM || (entry == nullptr && errno == ENOMEM));
    if (found.error == 0 && entry == nullptr) {
        found.error = file_error();
    }
    found.is_found = entry != nullptr && found.entry.sp_pwdp != nullptr;
    return found;
}

/// A field of the entry that is not given is negative.
bool is_given(long days)
{
    return days >= 0;
}

/// Why the entry lets nobody log in today; null when it does. An age is not known while the clock is
/// before the day of the last change: the access point may not have its time yet.
const char *why_expired(const spwd &entry)
{
    const long today = static_cast<long>(std::time(nullptr) / (24L * 60 * 60));
    if (is_given(entry.sp_expire) && today >= entry.sp_expire) {
        return "the account has expired";
    }
    if (entry.sp_lstchg == 0) {
        return "the password must be changed first";
    }
    const bool can_be_too_old =
        is_given(entry.sp_lstchg) && is_given(entry.sp_max) && is_given(entry.sp_inact);
    const long age = today - entry.sp_lstchg;
    if (can_be_too_old && age > entry.sp_max && age - entry.sp_max > entry.sp_inact) {
        return "the password is too old";
    }
    return nullptr;
}

} // namespace

void shadow_use(bool is_used)
{
    state.is_used = is_used;
}

bool shadow_is_used()
{
    return state.is_used;
}

const char *shadow_field_of(const char *name, std::vector<char> *buffer)
{
    const look_up found = find(name, buffer);
    return found.is_found ? found.entry.sp_pwdp : nullptr;
}

const char *shadow_field_for_login(const char *name, std::vector<char> *buffer)
{
    const look_up found = find(name, buffer);
    if (found.error != 0) {
        LOG_ERROR("%s - getspnam_r error: %d", login_name, found.error);
        return nullptr;
    }
    if (!found.is_found) {
        LOG_ERROR("%s - no shadow entry", login_name);
        return nullptr;
    }
    if (const char *const why = why_expired(found.entry)) {
        LOG_ERROR("%s - %s", login_name, why);
        return nullptr;
    }
    return found.entry.sp_pwdp;
}

int shadow_error()
{
    std::vector<char> buffer;
    const wiped_at_end wiping{&buffer};
    const int error = find("root", &buffer).error; // which some sources have of their own
    return error != 0 ? error : file_error();
}
