#include "google/account.h"

#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include "config/file_notes.h"
#include "file/common_file.h"
#include "google/addresses.h"
#include "handles/argument.h"
#include "json/text.h"
#include "logger/common_logger.h"
#include "velm_google_auth.h"
#include "velm_utils.h"

namespace {

struct token_waiter {
    velm_google_account_callback callback;
    void *context;
};

} // namespace

/// Owned by the request for the token, so that it outlives a reload; the account only points to it,
/// and not any more once its key has been replaced.
struct velm_google_token_fetch {
    velm_google_account &account;
    std::vector<token_waiter> waiters;
};

namespace {

void token_hold(velm_google_account &account, json_ptr token)
{
    account.access_token = std::move(token);
    account.token_came = velm_moment_now();
    account.token_refused = false;
    ++account.token_number;
}

void token_received(json_ptr token, void *argument)
{
    const auto fetch = adopt<velm_google_token_fetch>(argument);
    velm_google_account &account = fetch->account;
    const bool current = account.fetch == fetch.get();
    if (current) {
        account.fetch = nullptr;
        token_hold(account, std::move(token));
    }
    const bool held = current && account.access_token != nullptr;
    for (const token_waiter &waiter : fetch->waiters) {
        waiter.callback(held, waiter.context);
    }
}

} // namespace

void velm_google_account_load(velm_google_account &account, const char *path,
                              const char *log_category, const char *function)
{
    if (!common_file_exists(path)) {
        LOG_ERROR("%s - missing private key", function);
        return;
    }
    const auto text = read_binary_file(path);
    account.private_key.reset(text ? cJSON_Parse(text->c_str()) : nullptr);
    account.access_token.reset();
    account.token_refused = false;
    account.fetch = nullptr;
    if (account.private_key == nullptr) {
        LOG_ERROR("%s - cannot parse private key", function);
    }
}

void velm_google_account_note(const velm_google_account &account, const char *key, const char *path)
{
    const char *why = nullptr;
    if (!common_file_exists(path)) {
        why = account.private_key != nullptr ? "the file is missing, the key read before is used"
                                             : "the file is missing";
    } else if (account.private_key == nullptr) {
        why = "the file cannot be read or is no JSON";
    } else if (*velm_google_account_project_id(account) == '\0' ||
               *json_text_or_empty(account.private_key.get(), "client_email") == '\0' ||
               *json_text_or_empty(account.private_key.get(), "private_key") == '\0') {
        why = "it has no project_id, client_email or private_key";
    }
    file_note_set(key, path, why);
}

bool velm_google_account_token_serves(const velm_google_account &account)
{
    if (account.access_token == nullptr) {
        return false;
    }
    const double valid_to =
        velm_utils_get_number_value_from_json_object(account.access_token.get(), "valid_to");
    const std::chrono::duration<double> lifetime{valid_to -
                                                 static_cast<double>(account.token_came.wall)};
    return velm_moment_is_within(account.token_came, lifetime);
}

void velm_google_account_refuse_token(velm_google_account &account, unsigned token_number,
                                      const char *log_category, const char *function)
{
    if (account.access_token == nullptr || account.token_number != token_number) {
        return;
    }
    LOG_INFO("%s - access token refused, the next one is asked for", function);
    account.access_token.reset();
    account.token_refused = true;
}

const char *velm_google_account_project_id(const velm_google_account &account)
{
    return json_text_or_empty(account.private_key.get(), "project_id");
}

void velm_google_account_request_token(velm_google_account &account,
                                       velm_google_account_callback callback, void *context)
{
    const bool begins = account.fetch == nullptr;
    if (begins) {
        account.fetch = release_new<velm_google_token_fetch>(velm_google_token_fetch{account, {}});
    }
    account.fetch->waiters.push_back({callback, context});
    if (begins) {
        velm_google_auth_request_access_token(account.private_key.get(), account.scope,
                                              token_received, account.fetch);
    }
}

bool velm_google_account_is_ready(const velm_google_account &account, const char *log_category,
                                  const char *function)
{
    if (*velm_google_account_project_id(account) == '\0') {
        LOG_ERROR("%s - missing project_id", function);
        return false;
    }
    if (account.access_token == nullptr) {
        LOG_ERROR("%s - missing auth token", function);
        return false;
    }
    if (*json_text_or_empty(account.access_token.get(), "access_token") == '\0') {
        LOG_ERROR("%s - missing access_token", function);
        return false;
    }
    return true;
}

http_client_request_data velm_google_account_make_request(const velm_google_account &account,
                                                          std::string uri, std::string body)
{
    http_client_request_data request;
    request.uri = std::move(uri);
    request.post_data = std::move(body);
    request.timeout_s = cloud_timeout_s;
    const std::string authorization =
        std::string{"Bearer "} + json_text_or_empty(account.access_token.get(), "access_token");
    http_client_add_header(&request, "Authorization", authorization.c_str());
    return request;
}
