#include <openssl/x509.h>

#include <array>
#include <ctime>
#include <optional>
#include <string>

#include "control/members.h"
#include "control/status_parts.h"
#include "crypto/asn1_time.h"
#include "cutils/interface_addresses.h"
#include "cutils/moment.h"
#include "handles/openssl.h"
#include "http_server/connections.h"
#include "ipc/places.h"
#include "metrics/metrics.h"
#include "text/hex.h"
#include "velm_http_server.h"
#include "velm_ipc.h"
#include "velm_location_policy_ipc.h"
#include "velm_main.h"
#include "velm_ssdp_server.h"

namespace {

double number_of(metric which)
{
    return static_cast<double>(metrics_get(which));
}

void add_connections(cJSON *server, std::size_t now, metric most, std::size_t limit)
{
    cJSON *const connections = control_add_object(server, "connections");
    control_add_number(connections, "now", static_cast<double>(now));
    control_add_number(connections, "most", number_of(most));
    control_add_number(connections, "limit", static_cast<double>(limit));
}

/// An address that no interface has is none.
void add_lan(cJSON *document, const velm_config &config)
{
    const std::string address = velm_config_lan_ip_address(&config);
    const bool is_there = interface_with_address(address.c_str(), config.lan_name) != 0;
    cJSON *const lan = control_add_object(document, "lan");
    control_add_text(lan, "interface", config.lan_name);
    control_add_text_or_null(lan, "address", is_there ? address.c_str() : nullptr);
    control_add_moment(lan, "since", is_there ? std::int64_t{velm_main_address_since()} * 1000 : 0);
    control_add_number(lan, "moves", number_of(metric::lan_moves));
}

void add_https(cJSON *document, const velm_config &config)
{
    cJSON *const https = control_add_object(document, "https");
    control_add_number(https, "port", config.http_server_port);
    control_add_bool(https, "listening", velm_http_server_is_listening());
    add_connections(https, http_connections_count(), metric::connections_most,
                    http_connection_limits{}.total);
}

void add_discovery(cJSON *document, const velm_config &config)
{
    cJSON *const discovery = control_add_object(document, "discovery");
    control_add_number(discovery, "port", config.ssdp_server_port);
    control_add_bool(discovery, "listening", velm_ssdp_server_is_listening());
    control_add_number(discovery, "searches", number_of(metric::searches));
    control_add_number(discovery, "answered", number_of(metric::search_answers));
}

void add_local_clients(cJSON *document, const velm_config &config)
{
    const velm_ipc *const server = velm_location_policy_ipc_server();
    const velm_ipc_usage usage = server != nullptr ? velm_ipc_usage_of(server) : velm_ipc_usage{};
    cJSON *const clients = control_add_object(document, "localClients");
    control_add_text(clients, "socket", config.location_policy_ipc_sock);
    control_add_bool(clients, "listening", server != nullptr);
    add_connections(clients, usage.connections, metric::clients_most, velm_ipc_connection_limit);
    control_add_number(clients, "openRequests", static_cast<double>(usage.open_requests));
}

std::string subject_of(const X509 *certificate)
{
    const bio_ptr memory{BIO_new(BIO_s_mem())};
    if (memory == nullptr) {
        return {};
    }
    X509_NAME_print_ex(memory.get(), X509_get_subject_name(certificate), 0,
                       XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB));
    char *text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    return length > 0 ? std::string{text, static_cast<std::size_t>(length)} : std::string{};
}

/// "AB:CD:..", as people compare it.
std::string fingerprint_of(const X509 *certificate)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned length = 0;
    std::string text;
    if (X509_digest(certificate, EVP_sha256(), digest.data(), &length) != 1) {
        return text;
    }
    for (unsigned i = 0; i < length; ++i) {
        const auto digits = hex_digits(digest[i], hex_letters::upper);
        text += i == 0 ? "" : ":";
        text.append(digits.data(), digits.size());
    }
    return text;
}

void add_certificate(cJSON *document)
{
    const X509 *const shown = velm_http_server_certificate();
    if (shown == nullptr) {
        control_add_null(document, "certificate");
        return;
    }
    cJSON *const certificate = control_add_object(document, "certificate");
    control_add_text(certificate, "subject", subject_of(shown));
    control_add_text(certificate, "sha256", fingerprint_of(shown));
    const auto add = [certificate](const char *name, const ASN1_TIME *time) {
        control_add_moment(certificate, name, asn1_time_seconds(time).value_or(0) * 1000);
    };
    add("notBefore", X509_get0_notBefore(shown));
    add("notAfter", X509_get0_notAfter(shown));
}

/// Null when it can be right.
const char *why_clock_is_wrong()
{
    const std::time_t now = std::time(nullptr);
    if (!velm_clock_was_set(now)) {
        return "it shows a time before 2025, so it has not been set";
    }
    const X509 *const shown = velm_http_server_certificate();
    const auto begin =
        shown != nullptr ? asn1_time_seconds(X509_get0_notBefore(shown)) : std::nullopt;
    return begin && now < *begin ? "it shows a time before the server's certificate is valid"
                                 : nullptr;
}

} // namespace

void control_status_add_servers(cJSON *document, const velm_config &config)
{
    add_lan(document, config);
    add_https(document, config);
    add_discovery(document, config);
    add_local_clients(document, config);
    add_certificate(document);
}

void control_status_add_clock(cJSON *document)
{
    const char *const why = why_clock_is_wrong();
    cJSON *const clock = control_add_object(document, "clock");
    control_add_bool(clock, "plausible", why == nullptr);
    control_add_text_or_null(clock, "why", why);
}
