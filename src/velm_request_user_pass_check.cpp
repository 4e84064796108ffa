#include "velm_request_user_pass_check.h"

#include <ctime>
#include <optional>

#include "logger/common_logger.h"
#include "velm_request_preprocessor_record.h"
#include "velm_user_auth_passwd.h"

namespace {

constexpr char log_category[] = "velm_request_user_pass_check";
constexpr char check_name[] = "make_user_pass_check";

struct login_policy {
    bool enabled;
    int max_failed_attempts;
    std::time_t block_time_s;
};
constexpr login_policy policy{true, 5, 60};

struct module_state {
    int failed_logins = 0;         // in a row
    std::time_t first_failure = 0; // of the present row
};
module_state state;

/// True while logins are refused unseen; a block that is over takes the count with it.
bool login_blocked(const login_policy &rules)
{
    if (!rules.enabled || state.failed_logins < rules.max_failed_attempts) {
        return false;
    }
    const std::time_t end = state.first_failure + rules.block_time_s;
    const std::time_t now = std::time(nullptr);
    if (now >= end) {
        state.failed_logins = 0;
        return false;
    }
    LOG_WARN("%s - login blocked (%d seconds remained)", check_name, static_cast<int>(end - now));
    return true;
}

bool credentials_right(const velm_request_preprocessor &p)
{
    return p.client_username != nullptr && *p.client_username != '\0' &&
           p.client_password != nullptr && *p.client_password != '\0' &&
           velm_user_auth_passwd_login(p.client_username, p.client_password) == 1;
}

void count_failure()
{
    if (state.failed_logins == 0) {
        state.first_failure = std::time(nullptr);
    }
    ++state.failed_logins;
}

int login_policy_check(const velm_request_preprocessor &p, const login_policy &rules)
{
    if (login_blocked(rules)) {
        return VELM_BREAK_LOGIN;
    }
    if (!credentials_right(p)) {
        count_failure();
        return VELM_BREAK_LOGIN;
    }
    state.failed_logins = 0;
    return VELM_BREAK_NONE;
}

std::optional<int> user_pass_check_run(velm_request_preprocessor &p)
{
    const int code = login_policy_check(p, policy);
    LOG_TRACE("%s [%p] - finished", check_name, static_cast<const void *>(&p));
    return code;
}

} // namespace

void velm_request_user_pass_check_init(const velm_config * /*config*/)
{
    LOG_TRACE("%s", __func__);
}

void make_user_pass_check(velm_request_preprocessor *p)
{
    // Hashing a password takes as long as a hundred other requests.
    common_async_action_call_long(preproc_check_run<user_pass_check_run>, p);
}
