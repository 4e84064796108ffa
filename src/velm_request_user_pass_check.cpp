#include "velm_request_user_pass_check.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "accounts/shadow.h"
#include "crypto/common_crypto.h"
#include "cutils/moment.h"
#include "logger/common_logger.h"
#include "request/input.h"
#include "request/record.h"
#include "velm_user_auth_passwd.h"

namespace {

constexpr char log_category[] = "velm_request_user_pass_check";
constexpr char check_name[] = "make_user_pass_check";

struct login_policy {
    bool enabled;
    int max_failed_attempts;
    std::time_t block_time_s;
};
constexpr login_policy policy{true, velm_login_max_failures, 60};

/// Wrong logins in a row.
struct failure_series {
    int count = 0;
    velm_moment first;
};

/// A name that was given with a wrong password, whether an account has it or not. Its digest takes
/// its place: a name may be long, and strangers choose it.
struct name_failures {
    common_sha256_digest name{};
    failure_series failures;
    std::uint64_t last = 0; // the number of its last failure; 0: the place is free
};

constexpr std::size_t max_names = 64;

struct module_state {
    failure_series of_all; // any success ends it
    /// Otherwise an attacker who has one account could log in just before the limit, and so guess at
    /// another account without end.
    std::array<name_failures, max_names> of_names;
    std::uint64_t failures = 0; // ever
};
module_state state;

/// How long this series keeps logins off; 0 when it does not. A block that is over takes the count
/// with it. So does one that begins in the future: the clock was set back, and nobody knows for how
/// long the block would last.
std::time_t end_or_seconds_left(failure_series *series, const login_policy &rules)
{
    if (!rules.enabled || series->count < rules.max_failed_attempts) {
        return 0;
    }
    if (!velm_moment_is_within(series->first, std::chrono::seconds{rules.block_time_s})) {
        *series = {};
        return 0;
    }
    // The second that is left may end between these two readings of the clock.
    return std::max<std::time_t>(series->first.wall + rules.block_time_s - std::time(nullptr), 1);
}

void count_failure(failure_series *series)
{
    if (series->count == 0) {
        series->first = velm_moment_now();
    }
    ++series->count;
}

bool is_given(const char *text)
{
    return text != nullptr && *text != '\0';
}

/// Null when the name has no failures.
name_failures *find_name(const common_sha256_digest &name)
{
    auto *const found = std::find_if(
        state.of_names.begin(), state.of_names.end(),
        [&name](const name_failures &entry) { return entry.last != 0 && entry.name == name; });
    return found != state.of_names.end() ? found : nullptr;
}

/// The name's place; for a new one a free place, or that of the name whose last failure is longest
/// ago.
name_failures *take_place(const common_sha256_digest &name)
{
    name_failures *const known = find_name(name);
    if (known != nullptr) {
        return known;
    }
    auto *const place = std::min_element(
        state.of_names.begin(), state.of_names.end(),
        [](const name_failures &a, const name_failures &b) { return a.last < b.last; });
    *place = {name, {}, 0};
    return place;
}

std::optional<common_sha256_digest> digest_of(const char *username)
{
    return is_given(username) ? common_crypto_sha256(request_bytes(username)) : std::nullopt;
}

void explain_block(velm_request_preprocessor &p, const char *why, std::time_t seconds)
{
    p.explained = why;
    p.hint = std::to_string(seconds) + " s more";
}

bool login_blocked(velm_request_preprocessor &p, const std::optional<common_sha256_digest> &name,
                   const login_policy &rules)
{
    std::time_t seconds = end_or_seconds_left(&state.of_all, rules);
    if (seconds > 0) {
        LOG_WARN("%s - login blocked (%d seconds remained)", check_name, static_cast<int>(seconds));
        explain_block(p, "too many wrong passwords came, so logins are blocked", seconds);
        return true;
    }
    name_failures *const entry = name.has_value() ? find_name(*name) : nullptr;
    seconds = entry != nullptr ? end_or_seconds_left(&entry->failures, rules) : 0;
    if (seconds > 0) {
        LOG_WARN("%s - login blocked (%d seconds remained) for this user name", check_name,
                 static_cast<int>(seconds));
        explain_block(p,
                      "too many wrong passwords came for its user name, so its logins are blocked",
                      seconds);
        return true;
    }
    return false;
}

bool credentials_right(const velm_request_preprocessor &p)
{
    return is_given(p.client_username) && is_given(p.client_password) &&
           velm_user_auth_passwd_login(p.client_username, p.client_password) != 0;
}

void note_failure(const std::optional<common_sha256_digest> &name)
{
    count_failure(&state.of_all);
    if (name.has_value()) {
        name_failures *const entry = take_place(*name);
        count_failure(&entry->failures);
        entry->last = ++state.failures;
    }
}

void note_success(const std::optional<common_sha256_digest> &name)
{
    state.of_all = {};
    name_failures *const entry = name.has_value() ? find_name(*name) : nullptr;
    if (entry != nullptr) {
        *entry = {};
    }
}

int login_policy_check(velm_request_preprocessor &p, const login_policy &rules)
{
    const auto name = digest_of(p.client_username);
    if (login_blocked(p, name, rules)) {
        return VELM_BREAK_LOGIN;
    }
    if (!credentials_right(p)) {
        note_failure(name);
        p.explained = "its user name or password is wrong";
        return VELM_BREAK_LOGIN;
    }
    note_success(name);
    return VELM_BREAK_NONE;
}

std::optional<int> user_pass_check_run(velm_request_preprocessor &p)
{
    const int code = login_policy_check(p, policy);
    LOG_TRACE("%s [%p] - finished", check_name, static_cast<const void *>(&p));
    return code;
}

} // namespace

void velm_request_user_pass_check_init(const velm_config *config)
{
    LOG_TRACE("%s", __func__);
    shadow_use(config != nullptr && config->accounts_shadow);
}

void make_user_pass_check(velm_request_preprocessor *p)
{
    // Hashing a password takes as long as a hundred other requests.
    common_async_action_call_long(preproc_check_run<user_pass_check_run>, p);
}
