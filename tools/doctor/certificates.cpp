#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "crypto/asn1_time.h"
#include "tools/doctor/checks.h"
#include "tools/doctor/read_certificate.h"
#include "tools/terminal/times.h"

namespace {

constexpr int days_of_warning = 30;

/// Phones reach the daemon by its address, so the certificate should name it.
bool names_address(X509 *certificate, const std::string &address)
{
    return X509_check_ip_asc(certificate, address.c_str(), 0) == 1;
}

bool ends_soon(const X509 *certificate)
{
    int days = 0;
    int seconds = 0;
    return ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate)) == 1 &&
           (days < days_of_warning || seconds < 0);
}

/// " ends on 2026-11-27, in 4 days"
std::string end_of(const X509 *certificate)
{
    const ASN1_TIME *const end = X509_get0_notAfter(certificate);
    int days = 0;
    int seconds = 0;
    const std::optional<std::int64_t> moment = asn1_time_seconds(end);
    if (ASN1_TIME_diff(&days, &seconds, nullptr, end) != 1 || !moment) {
        return " ends soon";
    }
    const std::string date =
        velmctl_date_of(velmctl_moment{std::chrono::seconds{*moment}}).substr(0, 10);
    const bool is_over = days < 0 || seconds < 0;
    return is_over ? " has ended on " + date
                   : " ends on " + date + ", in " + velmctl_count_of(days, "day", "days");
}

} // namespace

void doctor_check_certificate(const doctor_subject &subject, doctor_report &report)
{
    const char *const path = subject.config.http_server_cert_path;
    const x509_ptr certificate = doctor_read_certificate(path);
    if (subject.is_config_shut || subject.config.http_server_port == 0 || certificate == nullptr) {
        return; // the check of the configuration says what is wrong with it
    }
    if (ends_soon(certificate.get())) {
        report.warn(std::string{"certificate: "} + path + end_of(certificate.get()),
                    "Put a new one there and give it to the daemon with velmctl reload.");
    } else {
        report.ok(std::string{"certificate: "} + path + " lasts for more than " +
                  std::to_string(days_of_warning) + " days");
    }
    if (subject.lan_address.empty()) {
        return;
    }
    if (names_address(certificate.get(), subject.lan_address)) {
        report.ok("certificate: it names the LAN address " + subject.lan_address);
    } else {
        report.warn("certificate: it does not name the LAN address " + subject.lan_address,
                    "Where the app compares names, make one with subjectAltName=IP:" +
                        subject.lan_address + '.');
    }
}
