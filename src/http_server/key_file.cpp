#include "http_server/key_file.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <string>
#include <utility>

namespace {

struct prepared_key {
    std::string path;
    evp_pkey_ptr key;
};
prepared_key prepared;

evp_pkey_ptr read(const char *path)
{
    const bio_ptr file{BIO_new_file(path, "r")};
    return evp_pkey_ptr{file == nullptr ? nullptr
                                        : PEM_read_bio_PrivateKey(file.get(), nullptr,
                                                                  openssl_no_passphrase, nullptr)};
}

} // namespace

evp_pkey_ptr http_key_file_read(const char *path)
{
    prepared_key before = std::exchange(prepared, {});
    return before.key != nullptr && before.path == path ? std::move(before.key) : read(path);
}

void http_key_file_prepare(const char *path)
{
    prepared = {path, read(path)};
    ERR_clear_error();
}
