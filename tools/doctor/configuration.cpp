#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "check/check.h"
#include "file/directory.h"
#include "tools/doctor/checks.h"

namespace {

/// What is wrong decides where to mend it.
std::string remedy_of(const check_finding &finding)
{
    const std::string &place = finding.place.name;
    if (place.starts_with("nvram ")) {
        return "Set it anew: nvram set NAME=VALUE and nvram commit; velmd.conf(5) has the names.";
    }
    if (finding.place.line != 0) {
        return "Correct this line; velmd.conf(5) describes each key.";
    }
    return "Put the right file there, readable for the daemon, or correct the key that names it.";
}

/// What is refused to this user may be open to the daemon's.
bool is_not_for_us(const doctor_subject &subject, const check_finding &finding)
{
    return !subject.is_privy && finding.what.find(std::strerror(EACCES)) != std::string::npos;
}

/// What is so for this program and may be otherwise for the daemon: another line says that it is left out.
bool is_not_known_here(const doctor_subject &subject, const check_finding &finding)
{
    const bool is_of_nvram = finding.place.name.starts_with("nvram ");
    return (subject.is_elsewhere && finding.is_of_network) ||
           (is_of_nvram && !doctor_sees_nvram(subject));
}

struct secret_file {
    const char *key;
    char (velm_config::*path)[config_path_size];
};

constexpr secret_file secret_files[] = {
    {"http.server.key.path", &velm_config::http_server_key_path},
    {"app.android.integrity.d.key.path", &velm_config::app_android_integrity_d_key_path},
    {"app.android.integrity.privatekey.path", &velm_config::app_android_integrity_privatekey_path},
    {"cloudmessaging.firebase.privatekey.path",
     &velm_config::cloudmessaging_firebase_privatekey_path},
};

/// 0 also for a file that is not there: that is another line's.
mode_t mode_of(const std::string &path)
{
    struct stat found {};
    return !path.empty() && stat(path.c_str(), &found) == 0 ? found.st_mode : 0;
}

/// The way there is part of it: nobody comes through a directory that is not for everybody.
bool everybody_may_open(const std::string &path)
{
    if ((mode_of(path) & S_IRWXO) == 0) {
        return false;
    }
    for (std::string directory = parent_directory(path); directory != "/" && directory != ".";
         directory = parent_directory(directory)) {
        if ((mode_of(directory) & S_IXOTH) == 0) {
            return false;
        }
    }
    return true;
}

} // namespace

void doctor_check_configuration(const doctor_subject &subject, doctor_report &report)
{
    if (subject.is_config_shut) {
        report.warn("configuration: " + subject.config_path + ": not for this user",
                    "Run velmctl doctor as root.");
        return;
    }
    velm_command_line given;
    if (subject.is_config_asked_for) {
        given.config_path = subject.config_path;
    }
    std::vector<check_finding> findings = check_configuration(given, subject.config_path);
    std::erase_if(findings, [&subject](const check_finding &finding) {
        return is_not_known_here(subject, finding);
    });
    for (const check_finding &finding : findings) {
        const check_finding plain{finding.place, check_severity::error, finding.what};
        const std::string text =
            "configuration: " + check_finding_text(plain); // the line is marked
        if (is_not_for_us(subject, finding)) {
            report.warn(text + ": not for this user", "Run velmctl doctor as root.");
        } else if (finding.severity == check_severity::error) {
            report.fail(text, remedy_of(finding));
        } else {
            report.warn(text, remedy_of(finding));
        }
    }
    if (findings.empty()) {
        report.ok("configuration: nothing is wrong with " + subject.config_path +
                  ", its files and nvram");
    }
}

void doctor_check_modes(const doctor_subject &subject, doctor_report &report)
{
    bool is_any = false;
    for (const secret_file &file : secret_files) {
        const char *const path = subject.config.*file.path;
        if (everybody_may_open(path)) {
            is_any = true;
            report.warn(std::string{"modes: everybody may open the secret "} + path + " (" +
                            file.key + ')',
                        std::string{"Let its owner and group alone have it: chmod o= "} + path);
        }
    }
    if ((mode_of(subject.config_path) & (S_IWGRP | S_IWOTH)) != 0) {
        is_any = true;
        report.warn("modes: others than the owner may write " + subject.config_path,
                    "Take that from them: chmod go-w " + subject.config_path);
    }
    if (!is_any) {
        report.ok("modes: the secrets are not for everybody");
    }
}
