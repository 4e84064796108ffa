#include <arpa/inet.h>
#include <sys/stat.h>

#include <string>

#include "handles/openssl.h"
#include "tools/doctor/certificates.h"
#include "tools/doctor/checks.h"
#include "tools/doctor/tls.h"
#include "tools/status/problems.h"

namespace {

constexpr std::chrono::seconds limit{5};

/// The certificate is compared with the file: who must be proved is this daemon, whatever its name.
ssl_ptr new_tls()
{
    const ssl_ctx_ptr context{SSL_CTX_new(TLS_client_method())};
    return ssl_ptr{context == nullptr ? nullptr : SSL_new(context.get())};
}

void check_served(const doctor_subject &subject, const doctor_tls &tls, doctor_report &report)
{
    const x509_ptr served = tls.certificate();
    const x509_ptr in_file = doctor_read_certificate(subject.config.http_server_cert_path);
    const bool is_same =
        served != nullptr && in_file != nullptr && X509_cmp(served.get(), in_file.get()) == 0;
    if (is_same) {
        report.ok("daemon: it answers /info over TLS, with the certificate of the file");
    } else {
        report.warn("daemon: it answers /info over TLS, with another certificate than the file's",
                    "Let it read the file anew: velmctl reload.");
    }
}

/// One file may be called by two paths.
bool is_same_file(const std::string &one, const std::string &other)
{
    struct stat first {};
    struct stat second {};
    return one == other || (stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
                            first.st_dev == second.st_dev && first.st_ino == second.st_ino);
}

} // namespace

void doctor_check_daemon(const doctor_subject &subject, doctor_report &report)
{
    if (!subject.daemon.has_value()) {
        report.warn("daemon: " + subject.no_daemon,
                    subject.is_root ? "Start it, or look why it has ended, in its log."
                                    : "Run velmctl doctor as root, or start the daemon.");
        return;
    }
    const control_status &status = *subject.daemon;
    report.ok("daemon: velmd " + status.daemon.version + " runs as process " +
              std::to_string(status.daemon.pid));
    for (const std::string &problem : velmctl_status_problems(status)) {
        report.fail("daemon: " + problem,
                    "Look at velmctl status, and at the lines about it here.");
    }
    if (!is_same_file(status.daemon.configuration_file.value_or(""), subject.config_path)) {
        report.warn("daemon: it reads the configuration " +
                        status.daemon.configuration_file.value_or("of no file"),
                    "Give that file to velmctl doctor with -c.");
    }
}

void doctor_check_info(const doctor_subject &subject, doctor_report &report)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(subject.config.http_server_port);
    if (!subject.daemon.has_value() || subject.config.http_server_port == 0 ||
        inet_pton(AF_INET, subject.lan_address.c_str(), &address.sin_addr) != 1) {
        return;
    }
    ssl_ptr made = new_tls();
    if (made == nullptr) {
        return;
    }
    doctor_tls tls{std::move(made), limit};
    const std::string request =
        "GET /info HTTP/1.1\r\nHost: " + subject.lan_address + "\r\nConnection: close\r\n\r\n";
    const bool is_connected =
        tls.connect(reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const std::string answer = is_connected ? tls.exchange(request) : "";
    if (answer.starts_with("HTTP/1.1 200")) {
        check_served(subject, tls, report);
    } else {
        report.fail("daemon: it does not answer /info over TLS: " +
                        (answer.empty() ? tls.problem() : answer.substr(0, answer.find('\r'))),
                    "Look at a firewall on " + subject.lan_address + ", and at the daemon's log.");
    }
}
