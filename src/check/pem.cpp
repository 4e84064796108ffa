#include "check/pem.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <array>

#include "handles/openssl.h"

std::string check_pem_reason(unsigned long error)
{
    if (ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE) {
        return "it has none in PEM";
    }
    const char *const reason = error != 0 ? ERR_reason_error_string(error) : nullptr;
    return reason != nullptr ? reason : "no reason given";
}

std::string check_time_text(const std::tm &time)
{
    std::array<char, 64> text{};
    (void)std::strftime(text.data(), text.size(), "%F %T UTC", &time);
    return text.data();
}

std::string check_time_text(const ASN1_TIME *time)
{
    std::tm fields{};
    return ASN1_TIME_to_tm(time, &fields) == 1 ? check_time_text(fields) : "an unknown time";
}

std::string check_name_text(const X509_NAME *name)
{
    const bio_ptr memory{BIO_new(BIO_s_mem())};
    if (memory == nullptr) {
        return {};
    }
    X509_NAME_print_ex(memory.get(), name, 0,
                       XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB));
    char *text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    return length > 0 ? std::string{text, static_cast<std::size_t>(length)} : std::string{};
}
