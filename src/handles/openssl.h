#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "handles/handle.h"

using bio_ptr = handle<BIO, BIO_free_all>;
using bio_method_ptr = handle<BIO_METHOD, BIO_meth_free>;
using evp_md_ctx_ptr = handle<EVP_MD_CTX, EVP_MD_CTX_free>;
using evp_pkey_ptr = handle<EVP_PKEY, EVP_PKEY_free>;
using x509_ptr = handle<X509, X509_free>;
using x509_store_ptr = handle<X509_STORE, X509_STORE_free>;
using x509_store_ctx_ptr = handle<X509_STORE_CTX, X509_STORE_CTX_free>;
using ssl_ctx_ptr = handle<SSL_CTX, SSL_CTX_free>;
using ssl_ptr = handle<SSL, SSL_free>;
using ssl_session_ptr = handle<SSL_SESSION, SSL_SESSION_free>;

/// OPENSSL_free is a macro, so it needs a function to stand for it.
struct openssl_free_deleter {
    void operator()(void *memory) const noexcept
    {
        OPENSSL_free(memory);
    }
};
using openssl_bytes = std::unique_ptr<unsigned char, openssl_free_deleter>;

using general_names_ptr = handle<GENERAL_NAMES, GENERAL_NAMES_free>;
using asn1_object_ptr = handle<ASN1_OBJECT, ASN1_OBJECT_free>;
using evp_pkey_ctx_ptr = handle<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;

/// A list of certificates that other handles own.
struct x509_list_deleter {
    void operator()(STACK_OF(X509) * list) const noexcept
    {
        sk_X509_free(list);
    }
};
using x509_list_ptr = std::unique_ptr<STACK_OF(X509), x509_list_deleter>;

/// Refuses to tell a passphrase. Without it OpenSSL asks for one on the terminal, and waits, when a
/// PEM text says that it is encrypted.
inline int openssl_no_passphrase(char *, int, int, void *) noexcept
{
    return 0;
}
