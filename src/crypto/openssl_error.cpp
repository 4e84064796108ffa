#include "crypto/openssl_error.h"

#include <openssl/err.h>

#include <array>

namespace {

openssl_error with_text(unsigned long code)
{
    return {code, openssl_error_text(code)};
}

} // namespace

std::string openssl_error_text(unsigned long code)
{
    std::array<char, 256> text{};
    ERR_error_string_n(code, text.data(), text.size());
    return text.data();
}

openssl_error openssl_take_oldest_error()
{
    return with_text(ERR_get_error());
}

openssl_error openssl_last_error()
{
    return with_text(ERR_peek_last_error());
}
