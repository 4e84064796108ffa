#pragma once

#include "request/checks.h"
#include "velm_config.h"

/// The user/password check: the caller knows the password of a system account.
///
/// After too many failures in a row, whoever made them, every login is refused until 60 s after the
/// first of them. As many failures in a row for one user name block that name. A right login with
/// another name does not reset this count. At most 64 names are remembered: the name whose last
/// failure is longest ago is forgotten.

/// So many wrong logins in a row block all logins. As many for one user name block that name.
inline constexpr int velm_login_max_failures = 5;

/// The counts of failures outlive a reload. Without a record the shadow database is not used.
void velm_request_user_pass_check_init(const velm_config *config);

/// Queues the check, which continues the record with VELM_BREAK_NONE or VELM_BREAK_LOGIN.
void make_user_pass_check(velm_request_preprocessor *p);
