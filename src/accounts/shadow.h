#pragma once

#include <vector>

/// The shadow database: where an ordinary Linux keeps the password fields, away from the accounts. Whose
/// field in the account database is "x" has it there. It is read only if the setting accounts.shadow asks
/// for it, anew for every login.

/// In the account database: the field is in the shadow database.
inline constexpr char shadow_mark[] = "x";

/// At start and at each reload; off before.
void shadow_use(bool is_used);
[[nodiscard]] bool shadow_is_used();

/// The password field of an account; its text lies in `buffer`, which the caller wipes. Null when the
/// database has no such account or cannot be read. Says nothing.
[[nodiscard]] const char *shadow_field_of(const char *name, std::vector<char> *buffer);

/// The same for an account that wants to log in. Null, with a line in the log, also when the account has
/// expired, when its password must be changed first, and when it has been too old for longer than the
/// account allows. Exhausted memory is fatal.
[[nodiscard]] const char *shadow_field_for_login(const char *name, std::vector<char> *buffer);

/// 0, or the `errno` value for which the database cannot be read.
[[nodiscard]] int shadow_error();
