#pragma once

#include <openssl/x509.h>

#include <string_view>

/// Does a server's certificate belong to the host that was asked for? Names are compared in ASCII
/// without case. Where a certificate has a subject alternative name extension, only its DNS names
/// count; else the first common name does.

enum class http_client_hostname_result : int {
    MatchFound = 0,
    MatchNotFound = 1,
    NoSANPresent = 2,
    MalformedCertificate = 3, // a name with a NUL inside, or an extension that does not parse
    Error = 4,
};

/// A null host or certificate is `Error`; `NoSANPresent` is never the answer.
[[nodiscard]] http_client_hostname_result http_client_validate_hostname(const char *hostname,
                                                                        X509 *server_cert);

/// The result's name as it stands in the log; "Unknown" for a match and any other value.
[[nodiscard]] const char *http_client_hostname_result_name(http_client_hostname_result result);

/// True when the certificate's name covers the host. A "*" stands for one or more characters of the
/// first label, and only above a domain of two labels or more.
[[nodiscard]] bool http_client_hostname_match(std::string_view cert_name,
                                              std::string_view hostname);
