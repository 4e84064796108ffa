#include "check/authorities.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <string>
#include <vector>

#include "check/files.h"
#include "check/pem.h"
#include "handles/openssl.h"
#include "http/tls.h"

namespace {

constexpr char key[] = "http.client.ca_cert.path";

/// Of a bundle whose every certificate is old nobody reads more.
constexpr std::size_t told_at_most = 8;

std::vector<x509_ptr> read_certificates(const std::string &path)
{
    std::vector<x509_ptr> certificates;
    const bio_ptr file{BIO_new_file(path.c_str(), "r")};
    while (file != nullptr) {
        x509_ptr one{PEM_read_bio_X509(file.get(), nullptr, openssl_no_passphrase, nullptr)};
        if (one == nullptr) {
            break;
        }
        certificates.push_back(std::move(one));
    }
    ERR_clear_error();
    return certificates;
}

bool is_valid_now(const X509 *certificate)
{
    return X509_cmp_current_time(X509_get0_notBefore(certificate)) < 0 &&
           X509_cmp_current_time(X509_get0_notAfter(certificate)) > 0;
}

/// What makes it of no use; empty when nothing does.
std::string problem_of(X509 *certificate)
{
    const ASN1_TIME *const begin = X509_get0_notBefore(certificate);
    const ASN1_TIME *const end = X509_get0_notAfter(certificate);
    if (X509_cmp_current_time(begin) > 0) {
        return "is not valid before " + check_time_text(begin);
    }
    if (X509_cmp_current_time(end) < 0) {
        return "has expired on " + check_time_text(end);
    }
    return X509_check_ca(certificate) == 0 ? "is no certificate of an authority" : "";
}

void check_each(const check_file &file, const std::vector<x509_ptr> &certificates,
                check_findings *findings)
{
    std::size_t bad = 0;
    for (const x509_ptr &one : certificates) {
        const std::string problem = problem_of(one.get());
        if (!problem.empty() && ++bad <= told_at_most) {
            const std::string name = check_name_text(X509_get_subject_name(one.get()));
            findings->warning(file.place(), "%s %s (%s)", check_quoted(name).c_str(),
                              problem.c_str(), key);
        }
    }
    if (bad > told_at_most) {
        findings->warning(file.place(), "%zu more are expired or of no authority (%s)",
                          bad - told_at_most, key);
    }
}

} // namespace

void check_authorities(const check_subject &subject, check_findings *findings)
{
    const auto file =
        check_readable(subject, key, subject.config.http_client_ca_cert_path, findings);
    const unsigned long error = file ? http_client_tls_try(file->path.c_str()) : 0;
    if (error != 0) {
        findings->error(file->place(), "no certificate can be read: %s (%s)",
                        check_pem_reason(error).c_str(), key);
    }
    if (!file || error != 0) {
        return;
    }
    const std::vector<x509_ptr> certificates = read_certificates(file->path);
    check_each(*file, certificates, findings);
    for (const x509_ptr &one : certificates) {
        if (is_valid_now(one.get())) {
            return;
        }
    }
    findings->error(file->place(), "none of its certificates is valid now (%s)", key);
}

bool check_authorities_hold(const char *path, const X509_NAME *name)
{
    const std::vector<x509_ptr> certificates = read_certificates(path);
    return std::ranges::any_of(certificates, [name](const x509_ptr &one) {
        return X509_NAME_cmp(X509_get_subject_name(one.get()), name) == 0;
    });
}
