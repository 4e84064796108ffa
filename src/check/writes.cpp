#include "check/writes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "accounts/shadow.h"
#include "config/settings.h"
#include "file/directory.h"
#include "logger/keys.h"

namespace {

constexpr char log_name_key[] = "logger.file.name";

bool is_path_key(std::string_view key)
{
    return key.ends_with(".path") || key == "process.pidfile" || key == "location.policy.ipc.sock";
}

enum class parent { is_there, can_be_made };

/// Why this user could not make or replace a file there; null when it could.
const char *why_not_in_directory_of(const std::string &path, parent wanted)
{
    std::string directory = parent_directory(path);
    while (wanted == parent::can_be_made && directory != "/" && directory != "." &&
           access(directory.c_str(), F_OK) != 0 && errno == ENOENT) {
        directory = parent_directory(directory);
    }
    struct stat found {};
    if (stat(directory.c_str(), &found) == 0 && !S_ISDIR(found.st_mode)) {
        return std::strerror(ENOTDIR);
    }
    const int rc = faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS);
    return rc == 0 ? nullptr : std::strerror(errno);
}

/// The same for a file that is written where it is.
const char *why_not_written(const std::string &path)
{
    struct stat found {};
    if (stat(path.c_str(), &found) != 0) {
        return errno == ENOENT ? why_not_in_directory_of(path, parent::is_there)
                               : std::strerror(errno);
    }
    if (S_ISDIR(found.st_mode)) {
        return std::strerror(EISDIR);
    }
    const int rc = faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS);
    return rc == 0 ? nullptr : std::strerror(errno);
}

void check_pid_file(const check_subject &subject, check_findings *findings)
{
    constexpr char key[] = "process.pidfile";
    if (!subject.config.daemonize) {
        return;
    }
    const char *const given = subject.config.pid_file_path;
    if (*given == '\0') {
        findings->error(check_place_of(subject, key), "%s: no file is named", key);
        return;
    }
    const std::string path = check_path_of(subject, given);
    if (const char *const why = why_not_written(path)) {
        findings->error({path, 0}, "cannot be written: %s (%s)", why, key);
    }
}

void check_socket(const check_subject &subject, check_findings *findings)
{
    constexpr char key[] = "location.policy.ipc.sock";
    const char *const given = subject.config.location_policy_ipc_sock;
    if (*given == '\0') {
        findings->error(check_place_of(subject, key), "%s: no path is given", key);
        return;
    }
    const std::string path = check_path_of(subject, given);
    struct stat found {};
    if (lstat(path.c_str(), &found) == 0 && !S_ISSOCK(found.st_mode)) {
        findings->error({path, 0}, "it is no socket, and is left alone (%s)", key);
    } else if (const char *const why = why_not_in_directory_of(path, parent::can_be_made)) {
        findings->error({path, 0}, "no socket can be made here: %s (%s)", why, key);
    }
}

const char *value_of(const check_subject &subject, const char *key)
{
    const char *value = nullptr;
    for (const ConfigPair *pair = conffile_next_pair(subject.pairs.get(), nullptr); pair != nullptr;
         pair = conffile_next_pair(subject.pairs.get(), pair)) {
        if (std::string_view{conffile_pair_key(pair)} == key) {
            value = conffile_pair_value(pair); // the first line of the file comes last
        }
    }
    return value;
}

void check_log_file(const check_subject &subject, check_findings *findings)
{
    const char *const is_on = value_of(subject, "logger.file");
    if (is_on == nullptr || !logger_truth(is_on).value_or(false)) {
        return;
    }
    const char *const name = value_of(subject, log_name_key);
    if (name == nullptr || *name == '\0') {
        findings->error(check_place_of(subject, "logger.file"), "%s is not set: there is no file",
                        log_name_key);
        return;
    }
    const std::string path = check_path_of(subject, name);
    if (const char *const why = why_not_written(path)) {
        findings->error({path, 0}, "cannot be written: %s (%s)", why, log_name_key);
    }
}

void check_relative_path(const check_subject &subject, const char *key, const char *path,
                         check_findings *findings)
{
    if (*path != '\0' && *path != '/') {
        findings->warning(check_place_of(subject, key), "%s: a relative path counts from /", key);
    }
}

} // namespace

void check_writes(const check_subject &subject, check_findings *findings)
{
    check_pid_file(subject, findings);
    check_socket(subject, findings);
    check_log_file(subject, findings);
}

void check_accounts(const check_subject &subject, check_findings *findings)
{
    const int error = subject.config.accounts_shadow ? shadow_error() : 0;
    if (error != 0) {
        findings->error(check_place_of(subject, "accounts.shadow"),
                        "accounts.shadow: the shadow database cannot be read: %s",
                        std::strerror(error));
    }
}

void check_relative_paths(const check_subject &subject, check_findings *findings)
{
    if (!subject.config.daemonize) {
        return;
    }
    for (const config_setting &row : config_file_settings()) {
        const auto *const field = std::get_if<char(velm_config::*)[config_path_size]>(&row.field);
        if (field != nullptr && is_path_key(row.key)) {
            check_relative_path(subject, row.key, subject.config.**field, findings);
        }
    }
    if (const char *const name = value_of(subject, log_name_key)) {
        check_relative_path(subject, log_name_key, name, findings);
    }
}
