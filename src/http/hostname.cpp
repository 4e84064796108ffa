#include "http/hostname.h"

#include <algorithm>
#include <optional>

#include "handles/openssl.h"

namespace {

using result = http_client_hostname_result;

// Not tolower(): that follows the locale and would fold more than A to Z.
char fold(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equal_without_case(std::string_view a, std::string_view b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return fold(x) == fold(y); });
}

bool begins_without_case(std::string_view text, std::string_view prefix)
{
    return text.size() >= prefix.size() &&
           equal_without_case(text.substr(0, prefix.size()), prefix);
}

bool ends_without_case(std::string_view text, std::string_view suffix)
{
    return text.size() >= suffix.size() &&
           equal_without_case(text.substr(text.size() - suffix.size()), suffix);
}

/// A wildcard needs a domain of two labels below it, must stand in the first label, and never in an
/// internationalised one, whose characters are not what they look like.
bool wildcard_allowed(std::string_view pattern, std::size_t star, std::size_t dot)
{
    return star != std::string_view::npos && dot != std::string_view::npos && star < dot &&
           pattern.find('.', dot + 1) != std::string_view::npos &&
           !begins_without_case(pattern, "xn--");
}

std::string_view asn1_text(const ASN1_STRING *string)
{
    return {reinterpret_cast<const char *>(ASN1_STRING_get0_data(string)),
            static_cast<std::size_t>(ASN1_STRING_length(string))};
}

result match_text(std::string_view name, std::string_view hostname)
{
    // "good.example\0.evil.example": a certificate authority checked the whole, a C string compare
    // would see the half.
    if (name.find('\0') != std::string_view::npos) {
        return result::MalformedCertificate;
    }
    return http_client_hostname_match(name, hostname) ? result::MatchFound : result::MatchNotFound;
}

result match_alternative_names(const GENERAL_NAMES *names, std::string_view hostname)
{
    for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME *name = sk_GENERAL_NAME_value(names, i);
        if (name->type != GEN_DNS) {
            continue;
        }
        const result found = match_text(asn1_text(name->d.dNSName), hostname);
        if (found != result::MatchNotFound) {
            return found;
        }
    }
    return result::MatchNotFound;
}

result match_common_name(X509 *server_cert, std::string_view hostname)
{
    const X509_NAME *subject = X509_get_subject_name(server_cert);
    const int index =
        X509_NAME_get_index_by_NID(const_cast<X509_NAME *>(subject), NID_commonName, -1);
    if (index < 0) {
        return result::Error;
    }
    const X509_NAME_ENTRY *entry = X509_NAME_get_entry(subject, index);
    const ASN1_STRING *data = entry != nullptr ? X509_NAME_ENTRY_get_data(entry) : nullptr;
    return data != nullptr ? match_text(asn1_text(data), hostname) : result::Error;
}

} // namespace

bool http_client_hostname_match(std::string_view cert_name, std::string_view hostname)
{
    if (cert_name.empty() || hostname.empty()) {
        return false;
    }
    if (equal_without_case(cert_name, hostname)) {
        return true;
    }
    const std::size_t star = cert_name.find('*');
    const std::size_t dot = cert_name.find('.');
    const std::size_t host_dot = hostname.find('.');
    if (!wildcard_allowed(cert_name, star, dot) || host_dot == std::string_view::npos ||
        !equal_without_case(cert_name.substr(dot), hostname.substr(host_dot))) {
        return false;
    }
    const std::string_view host_label = hostname.substr(0, host_dot);
    return host_label.size() >= dot && begins_without_case(host_label, cert_name.substr(0, star)) &&
           ends_without_case(host_label, cert_name.substr(star + 1, dot - star - 1));
}

http_client_hostname_result http_client_validate_hostname(const char *hostname, X509 *server_cert)
{
    if (hostname == nullptr || server_cert == nullptr) {
        return result::Error;
    }
    int critical = -1;
    const general_names_ptr names{static_cast<GENERAL_NAMES *>(
        X509_get_ext_d2i(server_cert, NID_subject_alt_name, &critical, nullptr))};
    if (names != nullptr) {
        return match_alternative_names(names.get(), hostname);
    }
    // -1 says that there is none; anything else, that it is there but unreadable or doubled: the
    // common name must not stand in for it.
    return critical == -1 ? match_common_name(server_cert, hostname) : result::MalformedCertificate;
}

const char *http_client_hostname_result_name(http_client_hostname_result result)
{
    switch (result) {
    case result::MatchNotFound:
        return "MatchNotFound";
    case result::NoSANPresent:
        return "NoSANPresent";
    case result::MalformedCertificate:
        return "MalformedCertificate";
    case result::Error:
        return "Error";
    case result::MatchFound:
        break;
    }
    return "Unknown";
}
