#include "tools/doctor/info.h"

#include <arpa/inet.h>

#include "handles/openssl.h"
#include "tools/doctor/read_certificate.h"
#include "tools/doctor/tls.h"

namespace {

constexpr std::chrono::seconds limit{5};

/// The certificate is compared with the file: who must be proved is this daemon, whatever its name.
ssl_ptr new_tls()
{
    const ssl_ctx_ptr context{SSL_CTX_new(TLS_client_method())};
    return ssl_ptr{context == nullptr ? nullptr : SSL_new(context.get())};
}

doctor_certificate compare(const velm_config &config, const doctor_tls &tls)
{
    const x509_ptr in_file = doctor_read_certificate(config.http_server_cert_path);
    if (in_file == nullptr) {
        return doctor_certificate::unknown;
    }
    const x509_ptr served = tls.certificate();
    return served != nullptr && X509_cmp(served.get(), in_file.get()) == 0
               ? doctor_certificate::of_file
               : doctor_certificate::other;
}

} // namespace

doctor_info doctor_ask_info(const velm_config &config, const std::string &address)
{
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(config.http_server_port);
    ssl_ptr made = new_tls();
    if (config.http_server_port == 0 || made == nullptr ||
        inet_pton(AF_INET, address.c_str(), &peer.sin_addr) != 1) {
        return {};
    }
    doctor_tls tls{std::move(made), limit};
    const std::string request =
        "GET /info HTTP/1.1\r\nHost: " + address + "\r\nConnection: close\r\n\r\n";
    const bool is_connected = tls.connect(reinterpret_cast<const sockaddr *>(&peer), sizeof peer);
    const std::string answer = is_connected ? tls.exchange(request) : "";
    if (answer.starts_with("HTTP/1.1 200")) {
        return {compare(config, tls), ""};
    }
    return {doctor_certificate::none,
            answer.empty() ? tls.problem() : answer.substr(0, answer.find('\r'))};
}
