#pragma once

/// Logins against the system password database, and the shadow database where accounts/shadow.h is told
/// to use it.

/// 1 when the password is right for that system account, else 0; never 1 for "root". An account
/// whose password field is empty takes any password that is not. Hashes on the calling thread, so it
/// takes as long as the account's hash asks; as long for a name that may not log in or that no
/// account has. Null arguments are fatal.
[[nodiscard]] int velm_user_auth_passwd_login(const char *username, const char *password);
