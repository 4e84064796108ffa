#include "http_server/key_file.h"

#include <openssl/pem.h>

evp_pkey_ptr http_key_file_read(const char *path)
{
    const bio_ptr file{BIO_new_file(path, "r")};
    return evp_pkey_ptr{file == nullptr ? nullptr
                                        : PEM_read_bio_PrivateKey(file.get(), nullptr,
                                                                  openssl_no_passphrase, nullptr)};
}
