#include <string>

#include "tools/control/same_file.h"
#include "tools/doctor/checks.h"
#include "tools/doctor/info.h"
#include "tools/status/problems.h"

namespace {

/// A daemon may be there and not say how it is.
void tell_without_status(const doctor_subject &subject, doctor_report &report)
{
    if (!doctor_is_running(subject)) {
        report.warn("daemon: " + subject.no_daemon,
                    subject.is_root ? "Start it, or look why it has ended, in its log."
                                    : "Run velmctl doctor as root, or start the daemon.");
        return;
    }
    const std::string runs = subject.process.has_value()
                                 ? "velmd runs as process " + std::to_string(*subject.process)
                                 : "it runs: it answers /info with the certificate of the file";
    if (subject.config.control_sock[0] == '\0' && !subject.is_config_shut) {
        report.ok("daemon: " + runs + "; control.sock is empty, so it does not say how it is");
    } else {
        report.warn("daemon: " + runs + ", and does not say how it is here: " + subject.no_daemon,
                    subject.is_privy ? "Look at control.sock in " + subject.config_path +
                                           ", and reload the daemon."
                                     : "Run velmctl doctor as root.");
    }
}

} // namespace

void doctor_check_daemon(const doctor_subject &subject, doctor_report &report)
{
    if (!subject.daemon.has_value()) {
        tell_without_status(subject, report);
        return;
    }
    const control_status &status = *subject.daemon;
    report.ok("daemon: velmd " + status.daemon.version + " runs as process " +
              std::to_string(status.daemon.pid));
    for (const std::string &problem : velmctl_status_problems(status)) {
        report.fail("daemon: " + problem,
                    "Look at velmctl status, and at the lines about it here.");
    }
    if (!control_is_same_file(status.daemon.configuration_file.value_or(""), subject.config_path)) {
        report.warn("daemon: it reads the configuration " +
                        status.daemon.configuration_file.value_or("of no file"),
                    "Give that file to velmctl doctor with -c.");
    }
}

void doctor_check_info(const doctor_subject &subject, doctor_report &report)
{
    if (!doctor_is_running(subject) || subject.config.http_server_port == 0 ||
        subject.lan_address.empty() || subject.is_config_shut) {
        return;
    }
    const doctor_info info = doctor_ask_info(subject.config, subject.lan_address);
    switch (info.certificate) {
    case doctor_certificate::of_file:
        report.ok("daemon: it answers /info over TLS, with the certificate of the file");
        break;
    case doctor_certificate::unknown:
        report.ok("daemon: it answers /info over TLS");
        break;
    case doctor_certificate::other:
        report.warn("daemon: it answers /info over TLS, with another certificate than the file's",
                    "Let it read the file anew: velmctl reload.");
        break;
    case doctor_certificate::none:
        report.fail("daemon: it does not answer /info over TLS: " + info.problem,
                    "Look at a firewall on " + subject.lan_address + ", and at the daemon's log.");
        break;
    }
}

void doctor_check_network(const doctor_subject &subject, doctor_report &report)
{
    if (subject.is_elsewhere) {
        const std::string process =
            subject.process.has_value() ? std::to_string(*subject.process) : "PID";
        report.warn("network: the daemon is in another network than this program: the LAN, the "
                    "ports, /info, the search and the cloud are left out",
                    "Run it there, as root: nsenter --net --mount --target=" + process +
                        " velmctl doctor.");
    }
}
