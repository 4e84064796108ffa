#pragma once

#include <string>

#include "cutils/moment.h"
#include "handles/cjson.h"
#include "http/http_client.h"

/// A Google service account as one module uses it: its key, and the access token that is held until
/// its last second or until a service refuses it. An account lives as long as the process.
///
/// Lines about an account are its user's: functions that log take the category and the name of the
/// function that they log for.

struct velm_google_token_fetch;

struct velm_google_account {
    const char *scope;          // what its tokens are good for
    json_ptr private_key = {};  // the parsed key file; null without a good one
    json_ptr access_token = {}; // null when none is held
    velm_moment token_came = {};
    unsigned token_number = 0;                // how many came; tells the one held from earlier ones
    bool token_refused = false;               // none is held since a service refused it
    velm_google_token_fetch *fetch = nullptr; // under way for this very key
};

/// Reads the key file. A good one replaces the key and drops the token. One that cannot be read or
/// parsed leaves no key and no token; one that is missing leaves all as it was. Both are logged.
void velm_google_account_load(velm_google_account &account, const char *path,
                              const char *log_category, const char *function);

/// Notes for the control socket (config/file_notes.h) whether the key file of this setting can be used.
void velm_google_account_note(const velm_google_account &account, const char *key,
                              const char *path);

/// A token is held and its time is not over. A token that came later than the present moment, as the
/// clock shows it, does not serve: the clock was set back, and nobody knows how far.
[[nodiscard]] bool velm_google_account_token_serves(const velm_google_account &account);

/// A service answered 401 to a request that was made with the token of that number: it is held no
/// longer. A token that came meanwhile stays.
void velm_google_account_refuse_token(velm_google_account &account, unsigned token_number,
                                      const char *log_category, const char *function);

/// The key's "project_id", empty when it has none or there is no key.
[[nodiscard]] const char *velm_google_account_project_id(const velm_google_account &account);

/// Called once: `held` says that a token was asked for with the key that is still in use, and came.
using velm_google_account_callback = void (*)(bool held, void *context);

/// Asks for a new token, for which there must be a key, and calls back later. Whoever comes while
/// one is on its way shares it.
void velm_google_account_request_token(velm_google_account &account,
                                       velm_google_account_callback callback, void *context);

/// False, and the reason logged, when the account lacks what a request to Google needs.
[[nodiscard]] bool velm_google_account_is_ready(const velm_google_account &account,
                                                const char *log_category, const char *function);

/// A POST with the account's token, to be made while the account is ready.
[[nodiscard]] http_client_request_data
velm_google_account_make_request(const velm_google_account &account, std::string uri,
                                 std::string body);
