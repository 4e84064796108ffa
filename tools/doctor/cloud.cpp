#include <netdb.h>
#include <strings.h>

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "google/addresses.h"
#include "handles/handle.h"
#include "http/tls.h"
#include "tools/doctor/checks.h"
#include "tools/doctor/tls.h"

namespace {

constexpr std::chrono::seconds limit{5}; // for each address

using address_list = handle<addrinfo, freeaddrinfo>;

/// "https://name/path": name
std::string host_of(std::string_view uri)
{
    uri.remove_prefix(uri.find("//") + 2);
    return std::string{uri.substr(0, uri.find('/'))};
}

std::vector<std::string> hosts_of(const velm_config &config)
{
    std::vector<std::string> hosts{host_of(cloud_token_endpoint), host_of(cloud_fcm_base)};
    if (strcasecmp(config.app_android_integrity_method, "remote") == 0) {
        hosts.push_back(host_of(cloud_play_integrity_base));
    }
    return hosts;
}

/// Null when there is none, and then `why` says so.
address_list resolve(const std::string &host, std::string &why)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int rc = getaddrinfo(host.c_str(), "443", &hints, &found);
    why = rc == 0 ? "" : gai_strerror(rc);
    return address_list{rc == 0 ? found : nullptr};
}

/// Empty when one of the addresses proves to be the host.
std::string try_addresses(const std::string &host, const addrinfo *addresses)
{
    std::string problem = "it has no address";
    const http_client_peer peer{host};
    for (const addrinfo *one = addresses; one != nullptr; one = one->ai_next) {
        ssl_ptr tls = http_client_tls_new(&peer);
        if (tls == nullptr) {
            return "no TLS object can be made for this name";
        }
        doctor_tls connection{std::move(tls), limit};
        if (connection.connect(one->ai_addr, one->ai_addrlen)) {
            return "";
        }
        problem = connection.problem();
    }
    return problem;
}

void check(const std::string &host, doctor_report &report)
{
    std::string why;
    const address_list addresses = resolve(host, why);
    if (addresses == nullptr) {
        report.fail("cloud: " + host + " cannot be resolved: " + why,
                    "Look at the uplink, at /etc/resolv.conf and its name servers.");
        return;
    }
    const std::string problem = try_addresses(host, addresses.get());
    if (problem.empty()) {
        report.ok("cloud: " + host + " proves to be itself");
    } else {
        report.fail("cloud: " + host + ": " + problem,
                    "Look at the uplink and the clock. The file of http.client.ca_cert.path must "
                    "hold the root of this host's certificate.");
    }
}

} // namespace

void doctor_check_cloud(const doctor_subject &subject, doctor_report &report)
{
    if (subject.offline) {
        return;
    }
    const char *const authorities = subject.config.http_client_ca_cert_path;
    if (!http_client_tls_set_up(authorities)) {
        report.fail(std::string{"cloud: no authorities can be read from "} + authorities,
                    "Put the certificates of the cloud's authorities there, in PEM.");
        return;
    }
    // A name server that does not answer is not waited for half a minute.
    setenv("RES_OPTIONS", "timeout:2 attempts:2", 0);
    for (const std::string &host : hosts_of(subject.config)) {
        check(host, report);
    }
}
