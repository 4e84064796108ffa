#include "check/certificates.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <array>
#include <ctime>
#include <optional>
#include <string>

#include "check/authorities.h"
#include "check/files.h"
#include "check/pem.h"
#include "file/common_file.h"
#include "handles/openssl.h"
#include "http_server/key_file.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "main";
constexpr char certificate_key[] = "http.server.cert.path";
constexpr char private_key_key[] = "http.server.key.path";

/// Of a key that cannot be read. How it cannot be decrypted is of no use to a reader.
std::string reason_of_key(const std::string &path, unsigned long error)
{
    const std::optional<std::string> text = read_binary_file(path.c_str());
    const bool is_encrypted = text && text->find("ENCRYPTED") != std::string::npos;
    return is_encrypted ? "it is encrypted" : check_pem_reason(error);
}

std::string now_text()
{
    const std::time_t now = std::time(nullptr);
    std::tm fields{};
    gmtime_r(&now, &fields);
    return check_time_text(fields);
}

void check_validity(const check_file &file, const X509 *certificate, check_findings *findings)
{
    const ASN1_TIME *const begin = X509_get0_notBefore(certificate);
    const ASN1_TIME *const end = X509_get0_notAfter(certificate);
    if (X509_cmp_current_time(begin) > 0) {
        findings->error(file.place(),
                        "the certificate is not valid before %s, and the clock says %s (%s)",
                        check_time_text(begin).c_str(), now_text().c_str(), file.key);
    } else if (X509_cmp_current_time(end) < 0) {
        findings->error(file.place(), "the certificate has expired on %s (%s)",
                        check_time_text(end).c_str(), file.key);
    }
}

/// The same calls as those of the server library.
bool load_certificate(SSL_CTX *context, const check_file &file, check_findings *findings)
{
    ERR_clear_error();
    if (SSL_CTX_use_certificate_chain_file(context, file.path.c_str()) != 1) {
        findings->error(file.place(), "no certificate can be read: %s (%s)",
                        check_pem_reason(ERR_peek_error()).c_str(), file.key);
        return false;
    }
    check_validity(file, SSL_CTX_get0_certificate(context), findings);
    return true;
}

evp_pkey_ptr load_key(const check_file &file, check_findings *findings)
{
    ERR_clear_error();
    evp_pkey_ptr key = http_key_file_read(file.path.c_str());
    if (key == nullptr) {
        findings->error(file.place(), "no private key can be read: %s (%s)",
                        reason_of_key(file.path, ERR_peek_error()).c_str(), file.key);
    }
    return key;
}

void check_server(const check_subject &subject, check_findings *findings)
{
    const velm_config &config = subject.config;
    const auto certificate =
        check_readable(subject, certificate_key, config.http_server_cert_path, findings);
    const auto key =
        check_readable(subject, private_key_key, config.http_server_key_path, findings);
    const ssl_ctx_ptr context{SSL_CTX_new(TLS_method())};
    REQUIRE_MEMORY(context, "context");
    const bool has_certificate =
        certificate && load_certificate(context.get(), *certificate, findings);
    const evp_pkey_ptr private_key = key ? load_key(*key, findings) : nullptr;
    if (!has_certificate || private_key == nullptr) {
        return;
    }
    const bool fits = SSL_CTX_use_PrivateKey(context.get(), private_key.get()) == 1 &&
                      SSL_CTX_check_private_key(context.get()) == 1;
    if (!fits) {
        findings->error(key->place(), "the key is not that of the certificate %s (%s)",
                        certificate->path.c_str(), key->key);
    }
}

} // namespace

void check_certificates(const check_subject &subject, check_findings *findings)
{
    check_authorities(subject, findings);
    if (subject.config.http_server_port != 0) {
        check_server(subject, findings);
    }
    ERR_clear_error();
}
