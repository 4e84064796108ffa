#include <pwd.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "accounts/shadow.h"
#include "handles/secret.h"

#include "tools/doctor/checks.h"
#include "tools/doctor/process.h"
#include "tools/terminal/times.h"

namespace {

/// More than a router has; a directory service may have more, and is not read to its end.
constexpr int accounts_looked_at = 4096;

enum class field_kind { locked, empty, hash };

struct account_counts {
    int can_log_in = 0;
    std::vector<std::string> without_password;
    int in_shadow = 0; // and the daemon does not look there
    std::string first; // that can log in
};

field_kind kind_of(std::string_view field)
{
    if (field.starts_with('*') || field.starts_with('!') || field == shadow_mark) {
        return field_kind::locked;
    }
    return field.empty() ? field_kind::empty : field_kind::hash;
}

bool is_elsewhere(const passwd &account)
{
    return account.pw_passwd != nullptr && std::string_view{account.pw_passwd} == shadow_mark;
}

/// What a password is compared with.
field_kind kind_of(const passwd &account, bool uses_shadow)
{
    if (!is_elsewhere(account) || !uses_shadow) {
        return account.pw_passwd == nullptr ? field_kind::locked : kind_of(account.pw_passwd);
    }
    std::vector<char> buffer;
    const wiped_at_end wiping{&buffer};
    const char *const stored = shadow_field_for_login(account.pw_name, &buffer);
    return stored == nullptr ? field_kind::locked : kind_of(stored);
}

void count_account(const passwd &account, bool uses_shadow, account_counts &counts)
{
    const std::string_view name = account.pw_name;
    const field_kind kind = kind_of(account, uses_shadow);
    if (name == "root") {
        return;
    }
    counts.in_shadow += is_elsewhere(account) && !uses_shadow ? 1 : 0;
    if (kind == field_kind::locked) {
        return;
    }
    if (kind == field_kind::empty) {
        counts.without_password.emplace_back(name);
    }
    counts.first = counts.can_log_in == 0 ? name : counts.first;
    ++counts.can_log_in;
}

account_counts count_accounts(bool uses_shadow)
{
    account_counts counts;
    setpwent();
    for (int i = 0; i < accounts_looked_at; ++i) {
        const passwd *const account = getpwent();
        if (account == nullptr) {
            break;
        }
        count_account(*account, uses_shadow, counts);
    }
    endpwent();
    return counts;
}

/// A few of them.
std::string names_of(const std::vector<std::string> &names)
{
    constexpr std::size_t most = 3;
    std::string text;
    for (std::size_t i = 0; i < names.size() && i < most; ++i) {
        text += (i == 0 ? "" : ", ") + names[i];
    }
    return names.size() > most ? text + " and " + std::to_string(names.size() - most) + " more"
                               : text;
}

} // namespace

void doctor_check_accounts(const doctor_subject &subject, doctor_report &report)
{
    if (subject.process.has_value() && doctor_process_has_other_accounts(*subject.process)) {
        if (!subject.is_elsewhere) { // else a line has said so
            report.warn("accounts: the daemon has another /etc/passwd than this program",
                        "Run it there, as root: nsenter --mount=/proc/" +
                            std::to_string(*subject.process) + "/ns/mnt velmctl doctor.");
        }
        return;
    }
    const bool uses_shadow = subject.config.accounts_shadow;
    const int error = uses_shadow ? shadow_error() : 0;
    if (error != 0) {
        report.warn(std::string{"accounts: the shadow database cannot be read: "} +
                        std::strerror(error),
                    "Run velmctl doctor as root, or as the daemon's user.");
        return;
    }
    const account_counts counts = count_accounts(uses_shadow);
    if (!counts.without_password.empty()) {
        report.warn("accounts: " + std::to_string(counts.without_password.size()) +
                        " can log in with any password, since theirs is empty: " +
                        names_of(counts.without_password),
                    "Give each a password with passwd(1), or lock it.");
    } else if (counts.can_log_in > 0) {
        report.ok("accounts: " + std::to_string(counts.can_log_in) + " can log in, the first is " +
                  counts.first);
    } else if (counts.in_shadow > 0) {
        report.fail("accounts: nobody can log in: the passwords of " +
                        velmctl_count_of(counts.in_shadow, "account", "accounts") +
                        " are in the shadow file, where the daemon does not look",
                    "Set accounts.shadow=yes, or put a hash into the passwd file itself.");
    } else {
        report.fail("accounts: nobody can log in: no account but root has a password",
                    "Make an account with a password for the owner. Root cannot log in.");
    }
}
