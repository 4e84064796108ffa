#include "http_server/key_file.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <string>
#include <utility>

namespace {

struct module_state {
    evp_pkey_ptr prepared;
    std::string prepared_path;
};
module_state state;

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
    evp_pkey_ptr prepared = std::move(state.prepared);
    return prepared != nullptr && state.prepared_path == path ? std::move(prepared) : read(path);
}

void http_key_file_prepare(const char *path)
{
    state.prepared = read(path);
    state.prepared_path = path;
    ERR_clear_error();
}
