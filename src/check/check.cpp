#include "check/check.h"

#include <cerrno>
#include <cstring>

#include "check/certificates.h"
#include "check/keys.h"
#include "check/lines.h"
#include "check/nvram.h"
#include "check/options.h"
#include "check/subject.h"
#include "check/writes.h"
#include "velm_config.h"
#include "velm_nvram_config.h"

namespace {

/// A file that nobody asked for may be missing.
void check_opened(const check_subject &subject, bool is_asked_for, check_findings *findings)
{
    const int error = subject.file.error;
    const check_place place{subject.config_path, 0};
    const char *const why = error == EINVAL ? "it is no regular file" : std::strerror(error);
    if (error == ENOENT && !is_asked_for) {
        findings->warning(place, "cannot be read: %s: the defaults are used", why);
    } else {
        findings->error(place, "cannot be read: %s", why);
    }
}

void load_file(check_subject &subject, bool is_asked_for, check_findings *findings)
{
    if (subject.config_path.empty()) {
        return;
    }
    subject.pairs = conffile_account_for(subject.config_path.c_str(), &subject.file);
    if (subject.pairs == nullptr) {
        check_opened(subject, is_asked_for, findings);
        return;
    }
    check_lines(subject.config_path, subject.file, findings);
    errno = 0; // a stale one would keep the numbers from being stored
    velm_config_load_pairs(&subject.config, subject.pairs);
}

} // namespace

std::vector<check_finding> check_configuration(const velm_command_line &given,
                                               const std::string &config_path)
{
    check_findings findings;
    check_subject subject;
    subject.config_path = config_path;
    velm_config_set_defaults(&subject.config);
    load_file(subject, given.config_path.has_value(), &findings);
    velm_nvram_config_load(&subject.config);
    check_nvram(subject, given.lan_ip_address.has_value(), &findings);
    check_options(given, &findings);
    check_relative_paths(subject, &findings);
    check_certificates(subject, &findings);
    check_keys(subject, &findings);
    check_writes(subject, &findings);
    check_accounts(subject, &findings);
    return findings.take();
}
