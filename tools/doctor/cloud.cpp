#include <netdb.h>
#include <strings.h>

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "check/authorities.h"
#include "check/pem.h"
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

/// A TLS object that takes any certificate, to look at what the host shows.
ssl_ptr new_trusting_tls(const std::string &host)
{
    const ssl_ctx_ptr context{SSL_CTX_new(TLS_client_method())};
    ssl_ptr tls{context == nullptr ? nullptr : SSL_new(context.get())};
    std::string name = host;
    // What SSL_set_tlsext_host_name does, without its cast.
    const bool is_good = tls != nullptr && SSL_ctrl(tls.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME,
                                                    TLSEXT_NAMETYPE_host_name, name.data()) == 1;
    return is_good ? std::move(tls) : nullptr;
}

/// The authority that its chain ends in, when the file does not hold it; else empty.
std::string missing_authority(const std::string &host, const addrinfo &address,
                              const char *authorities)
{
    ssl_ptr tls = new_trusting_tls(host);
    if (tls == nullptr) {
        return "";
    }
    doctor_tls connection{std::move(tls), limit};
    if (!connection.connect(address.ai_addr, address.ai_addrlen)) {
        return "";
    }
    const x509_ptr last = connection.last_certificate();
    const X509_NAME *const issuer = last == nullptr ? nullptr : X509_get_issuer_name(last.get());
    return issuer == nullptr || check_authorities_hold(authorities, issuer)
               ? ""
               : check_name_text(issuer);
}

/// Empty when one of the addresses proves to be the host.
std::string try_addresses(const std::string &host, const addrinfo *addresses,
                          const char *authorities)
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
        const std::string missing =
            connection.is_unproved() ? missing_authority(host, *one, authorities) : "";
        problem =
            connection.problem() + (missing.empty() ? ""
                                                    : "; its certificates lead to " + missing +
                                                          ", which is not in " + authorities);
    }
    return problem;
}

void check(const std::string &host, const char *authorities, doctor_report &report)
{
    std::string why;
    const address_list addresses = resolve(host, why);
    if (addresses == nullptr) {
        report.fail("cloud: " + host + " cannot be resolved: " + why,
                    "Look at the uplink, at /etc/resolv.conf and its name servers.");
        return;
    }
    const std::string problem = try_addresses(host, addresses.get(), authorities);
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
        check(host, authorities, report);
    }
}
