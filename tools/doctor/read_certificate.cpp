#include "tools/doctor/read_certificate.h"

#include <openssl/err.h>
#include <openssl/pem.h>

x509_ptr doctor_read_certificate(const char *path)
{
    const bio_ptr file{BIO_new_file(path, "r")};
    x509_ptr read{file == nullptr
                      ? nullptr
                      : PEM_read_bio_X509(file.get(), nullptr, openssl_no_passphrase, nullptr)};
    ERR_clear_error();
    return read;
}
