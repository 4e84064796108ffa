#pragma once

#include <openssl/x509.h>

#include <ctime>
#include <string>

/// What certificates and the reading of PEM files say, for people.

/// OpenSSL's reason; what it says of a file without the wanted block of PEM is no word for a reader.
[[nodiscard]] std::string check_pem_reason(unsigned long error);

[[nodiscard]] std::string check_time_text(const std::tm &time);
[[nodiscard]] std::string check_time_text(const ASN1_TIME *time);

/// "CN=name,O=organisation"
[[nodiscard]] std::string check_name_text(const X509_NAME *name);
