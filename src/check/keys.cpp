#include "check/keys.h"

#include <strings.h>
#include <unistd.h>

#include <ctime>
#include <optional>
#include <string>

#include "android_validation/token.h"
#include "check/files.h"
#include "file/common_file.h"
#include "google/addresses.h"
#include "google/jwt.h"
#include "handles/cjson.h"
#include "ios_validation/certificate.h"
#include "json/text.h"

namespace {

constexpr const char *account_members[] = {"project_id", "client_email", "private_key"};

/// A key file that is JSON, and the tree of it.
struct json_file {
    check_file file;
    std::string text;
    json_ptr tree;
};

std::optional<json_file> read_json(const check_subject &subject, const char *key, const char *path,
                                   check_findings *findings)
{
    std::optional<std::string> text = check_read(subject, key, path, findings);
    if (!text) {
        return std::nullopt;
    }
    json_file read{{key, check_path_of(subject, path)}, std::move(*text), nullptr};
    read.tree.reset(cJSON_Parse(read.text.c_str()));
    if (read.tree == nullptr) {
        findings->error(read.file.place(), "it is no JSON (%s)", key);
        return std::nullopt;
    }
    return read;
}

bool has_members(const json_file &account, check_findings *findings)
{
    bool has_all = true;
    for (const char *member : account_members) {
        if (*json_text_or_empty(account.tree.get(), member) == '\0') {
            findings->error(account.file.place(), "it has no \"%s\" (%s)", member,
                            account.file.key);
            has_all = false;
        }
    }
    return has_all;
}

void check_account(const check_subject &subject, const char *key, const char *path,
                   const char *scope, check_findings *findings)
{
    const std::optional<json_file> account = read_json(subject, key, path, findings);
    if (!account || !has_members(*account, findings)) {
        return;
    }
    if (!velm_google_auth_make_jwt(account->tree.get(), scope, cloud_token_endpoint,
                                   std::time(nullptr))) {
        findings->error(account->file.place(),
                        "its \"private_key\" is no RSA key in PEM that can sign (%s)", key);
    }
}

using key_judge = bool (*)(const std::string &text);

void check_jwk(const check_subject &subject, const char *key, const char *path, key_judge is_good,
               const char *wanted, check_findings *findings)
{
    const std::optional<json_file> jwk = read_json(subject, key, path, findings);
    if (jwk && !is_good(jwk->text)) {
        findings->error(jwk->file.place(), "it is no %s (%s)", wanted, key);
    }
}

void check_decryption_key(const check_subject &subject, check_findings *findings)
{
    check_jwk(subject, "app.android.integrity.d.key.path",
              subject.config.app_android_integrity_d_key_path, android_token_decryption_key_is_good,
              "JWK of kind oct with 32 bytes", findings);
}

void check_verification_key(const check_subject &subject, check_findings *findings)
{
    check_jwk(subject, "app.android.integrity.v.key.path",
              subject.config.app_android_integrity_v_key_path,
              android_token_verification_key_is_good, "JWK of kind EC on the curve P-256",
              findings);
}

bool is_there(const check_subject &subject, const char *path)
{
    return *path != '\0' && access(check_path_of(subject, path).c_str(), F_OK) == 0;
}

/// Google opens the tokens: these keys may be missing. Those that are there are of use when that is changed.
void check_keys_beforehand(const check_subject &subject, check_findings *findings)
{
    check_findings found;
    if (is_there(subject, subject.config.app_android_integrity_d_key_path)) {
        check_decryption_key(subject, &found);
    }
    if (is_there(subject, subject.config.app_android_integrity_v_key_path)) {
        check_verification_key(subject, &found);
    }
    findings->add_as_warnings(found.take());
}

void check_root(const check_subject &subject, check_findings *findings)
{
    constexpr char key[] = "app.ios.attest.root.ca.path";
    const char *const path = subject.config.app_ios_attest_root_ca_path;
    const std::optional<std::string> text = check_read(subject, key, path, findings);
    if (text && !ios_app_certificate_is_root(text->c_str())) {
        const check_file file{key, check_path_of(subject, path)};
        findings->error(file.place(), "no certificate can be read: it has none in PEM (%s)", key);
    }
}

} // namespace

void check_keys(const check_subject &subject, check_findings *findings)
{
    const velm_config &config = subject.config;
    check_account(subject, "cloudmessaging.firebase.privatekey.path",
                  config.cloudmessaging_firebase_privatekey_path, cloud_scope_firebase, findings);
    const bool is_remote = strcasecmp(config.app_android_integrity_method, "remote") == 0;
    if (is_remote) {
        check_account(subject, "app.android.integrity.privatekey.path",
                      config.app_android_integrity_privatekey_path, cloud_scope_play_integrity,
                      findings);
    }
    const bool has_root = config.app_ios_attest_root_ca_path[0] != '\0';
    if (!is_remote || has_root) { // a root is looked at only when these keys are good
        check_decryption_key(subject, findings);
        check_verification_key(subject, findings);
    } else {
        check_keys_beforehand(subject, findings);
    }
    if (has_root) {
        check_root(subject, findings);
    }
}
