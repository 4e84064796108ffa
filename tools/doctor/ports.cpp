#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "tools/doctor/bind.h"
#include "tools/doctor/checks.h"
#include "tools/doctor/process.h"
#include "tools/doctor/search.h"

namespace {

struct port {
    const char *what, *key;
    const char *address;
    std::uint16_t number;
    int kind;
    bool is_ours; // the daemon says that it has it
};

/// A daemon that does not say how it is can be looked at, or asked as a phone would. Two programs may have
/// a port for datagrams, so that it can be bound tells nothing.
bool is_seen_to_be_ours(const port &port, const doctor_subject &subject)
{
    if (subject.daemon.has_value()) {
        return false;
    }
    if (subject.process.has_value() &&
        doctor_process_has_port(*subject.process, port.number, port.kind).value_or(false)) {
        return true;
    }
    return subject.answers_as_ours &&
           (port.kind == SOCK_STREAM || doctor_search_finds(subject.config, subject.lan_address));
}

void check(const port &port, const doctor_subject &subject, doctor_report &report)
{
    const std::string name = std::string{port.what} + ": port " + std::to_string(port.number);
    if (port.number == 0) {
        report.warn(std::string{port.what} + ": it is off", std::string{"Set "} + port.key + '.');
        return;
    }
    const int error = port.is_ours ? 0 : velmctl_try_bind(port.address, port.number, port.kind);
    if (port.is_ours || is_seen_to_be_ours(port, subject)) {
        report.ok(name + " is the daemon's");
        return;
    }
    if (error == 0) {
        report.ok(name + " is free");
    } else if (error == EADDRNOTAVAIL) {
        report.warn(name + " cannot be told: this machine does not have " + port.address,
                    "Give the LAN interface its address.");
    } else if (error == EADDRINUSE && !subject.is_privy && !subject.daemon.has_value()) {
        report.warn(name + " is taken, by the daemon or by another program",
                    "Run velmctl doctor as root, to see which.");
    } else if (error == EACCES && !subject.is_root) {
        report.warn(name + " is not for this user", "Run velmctl doctor as the daemon's user.");
    } else if (error == EADDRINUSE) {
        report.fail(name + " is taken by another program",
                    std::string{"See with ss -lnp which one it is, and end it or change "} +
                        port.key + '.');
    } else {
        report.fail(name + " cannot be had: " + std::strerror(error),
                    std::string{"Change "} + port.key + '.');
    }
}

} // namespace

void doctor_check_ports(const doctor_subject &subject, doctor_report &report)
{
    if (subject.is_config_shut) {
        return;
    }
    const velm_config &config = subject.config;
    const bool runs = subject.daemon.has_value();
    const control_status status = runs ? *subject.daemon : control_status{};
    const std::string &lan = subject.lan_address;
    check({"HTTPS", "http.server.port", lan.empty() ? "0.0.0.0" : lan.c_str(),
           config.http_server_port, SOCK_STREAM,
           status.https.listening && status.https.port == config.http_server_port},
          subject, report);
    check({"discovery", "ssdp.server.port", "0.0.0.0", config.ssdp_server_port, SOCK_DGRAM,
           status.discovery.listening && status.discovery.port == config.ssdp_server_port},
          subject, report);
}
