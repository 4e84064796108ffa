#include <openssl/err.h>

#include <string>

#include "allocation_meter.h"
#include "fuzz_target.h"
#include "handles/openssl.h"
#include "http/hostname.h"

/// A server's certificate: the host, NUL, a common name, NUL, and the value of the subject alternative
/// name extension; none when that is empty.

namespace {

using result = http_client_hostname_result;

x509_ptr certificate(std::string_view common_name, fuzz_bytes extension)
{
    x509_ptr made{X509_new()};
    X509_NAME *const subject = X509_get_subject_name(made.get());
    X509_NAME_add_entry_by_NID(subject, NID_commonName, V_ASN1_UTF8STRING,
                               fuzz_bytes_of(common_name).data(),
                               static_cast<int>(common_name.size()), -1, 0);
    if (!extension.empty()) {
        const handle<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free> value{ASN1_OCTET_STRING_new()};
        ASN1_OCTET_STRING_set(value.get(), extension.data(), static_cast<int>(extension.size()));
        const handle<X509_EXTENSION, X509_EXTENSION_free> made_extension{
            X509_EXTENSION_create_by_NID(nullptr, NID_subject_alt_name, 0, value.get())};
        X509_add_ext(made.get(), made_extension.get(), -1);
    }
    return made;
}

std::string_view dns_name(const GENERAL_NAME *name)
{
    const ASN1_IA5STRING *const text = name->d.dNSName;
    return fuzz_text(
        {ASN1_STRING_get0_data(text), static_cast<std::size_t>(ASN1_STRING_length(text))});
}

/// A walk over all names: a DNS name has to match, and no name before it may have a NUL.
void alternative_names(fuzz_bytes extension, const std::string &host, result found)
{
    const std::uint8_t *position = extension.data();
    const general_names_ptr names{
        d2i_GENERAL_NAMES(nullptr, &position, static_cast<long>(extension.size()))};
    if (names == nullptr) {
        FUZZ_REQUIRE(found == result::MalformedCertificate);
        return;
    }
    bool matches = false;
    bool has_nul = false;
    for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME *const name = sk_GENERAL_NAME_value(names.get(), i);
        if (name->type == GEN_DNS) {
            const std::string_view text = dns_name(name);
            const bool nul = text.find('\0') != std::string_view::npos;
            matches = matches || (!has_nul && !nul && http_client_hostname_match(text, host));
            has_nul = has_nul || nul;
        }
    }
    FUZZ_REQUIRE((found == result::MatchFound) == matches);
    FUZZ_REQUIRE((found == result::MatchNotFound) == (!matches && !has_nul));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_input in{data, size};
    const std::string host{in.text_until('\0')};
    const std::string_view common_name = in.text_until('\0');
    const fuzz_bytes extension = in.rest();
    const x509_ptr server = certificate(common_name, extension);
    const allocation_meter meter;
    const result found = http_client_validate_hostname(host.c_str(), server.get());
    // A general name is some hundred bytes, out of two of its DER.
    FUZZ_REQUIRE(meter.peak() <= 200 * size + 4096);
    if (!extension.empty()) {
        alternative_names(extension, host, found);
    } else if (found == result::MatchFound) {
        FUZZ_REQUIRE(http_client_hostname_match(common_name, host));
    }
    ERR_clear_error();
    return 0;
}
