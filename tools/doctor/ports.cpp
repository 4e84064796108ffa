#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "handles/fd.h"
#include "tools/doctor/checks.h"

namespace {

/// 0 when the address could be had; it is let go at once.
int try_bind(const char *address, std::uint16_t port, int kind)
{
    const unique_fd socket{::socket(AF_INET, kind | SOCK_CLOEXEC, 0)};
    sockaddr_in wanted{};
    wanted.sin_family = AF_INET;
    wanted.sin_port = htons(port);
    const int on = 1; // as the daemon's own sockets have it
    if (!socket || inet_pton(AF_INET, address, &wanted.sin_addr) != 1 ||
        setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        return EINVAL;
    }
    const auto *const name = reinterpret_cast<const sockaddr *>(&wanted);
    return bind(socket.get(), name, sizeof wanted) == 0 ? 0 : errno;
}

struct port {
    const char *what, *key;
    const char *address;
    std::uint16_t number;
    int kind;
    bool is_ours; // the daemon has it
};

void check(const port &port, const doctor_subject &subject, doctor_report &report)
{
    const std::string name = std::string{port.what} + ": port " + std::to_string(port.number);
    if (port.number == 0) {
        report.warn(std::string{port.what} + ": it is off", std::string{"Set "} + port.key + '.');
        return;
    }
    if (port.is_ours) {
        report.ok(name + " is the daemon's");
        return;
    }
    const int error = try_bind(port.address, port.number, port.kind);
    if (error == 0 || error == EADDRNOTAVAIL) { // another line is about the address
        report.ok(name + " is free");
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
