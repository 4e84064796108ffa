#pragma once

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <string>
#include <vector>

#include "handles/openssl.h"

/// Keys and certificates made on the spot, bent as a test wants them.

inline evp_pkey_ptr make_test_key()
{
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr);
    EVP_PKEY *key = nullptr;
    EVP_PKEY_keygen_init(ctx);
    EVP_PKEY_CTX_set_ec_paramgen_curve_nid(ctx, NID_X9_62_prime256v1);
    EVP_PKEY_keygen(ctx, &key);
    EVP_PKEY_CTX_free(ctx);
    return evp_pkey_ptr{key};
}

struct test_certificate {
    evp_pkey_ptr key;
    x509_ptr cert;
};

struct test_certificate_wish {
    std::string common_name = {};            // empty: the subject has none
    std::vector<std::string> dns_names = {}; // may hold NUL bytes
    std::vector<std::string> emails = {};    // alternative names that are no DNS names
    bool empty_alternative_names = false;
    bool broken_alternative_names = false; // an extension that is no sequence
    long valid_from = -3600;               // seconds from now
    long valid_until = 3600;
    bool is_ca = false;
    std::string extra_name = "test"; // organisation, so that a subject is never empty
};

inline void add_subject_text(X509_NAME *name, const char *field, const std::string &text)
{
    X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>(text.data()),
                               static_cast<int>(text.size()), -1, 0);
}

inline void add_alternative_name(GENERAL_NAMES *names, int type, const std::string &text)
{
    GENERAL_NAME *name = GENERAL_NAME_new();
    ASN1_IA5STRING *value = ASN1_IA5STRING_new();
    ASN1_STRING_set(value, text.data(), static_cast<int>(text.size()));
    GENERAL_NAME_set0_value(name, type, value);
    sk_GENERAL_NAME_push(names, name);
}

inline void add_alternative_names(X509 *cert, const test_certificate_wish &wish)
{
    const general_names_ptr names{GENERAL_NAMES_new()};
    for (const std::string &email : wish.emails) {
        add_alternative_name(names.get(), GEN_EMAIL, email);
    }
    for (const std::string &dns_name : wish.dns_names) {
        add_alternative_name(names.get(), GEN_DNS, dns_name);
    }
    if (sk_GENERAL_NAME_num(names.get()) > 0 || wish.empty_alternative_names) {
        X509_add1_ext_i2d(cert, NID_subject_alt_name, names.get(), 0, 0);
    }
    if (wish.broken_alternative_names) {
        ASN1_OCTET_STRING *bytes = ASN1_OCTET_STRING_new();
        ASN1_OCTET_STRING_set(bytes, reinterpret_cast<const unsigned char *>("\x02\x01\x05"), 3);
        X509_EXTENSION *extension =
            X509_EXTENSION_create_by_NID(nullptr, NID_subject_alt_name, 0, bytes);
        X509_add_ext(cert, extension, -1);
        X509_EXTENSION_free(extension);
        ASN1_OCTET_STRING_free(bytes);
    }
}

/// Signed by `issuer`; without one, by itself.
inline test_certificate make_test_certificate(const test_certificate_wish &wish,
                                              const test_certificate *issuer = nullptr)
{
    static long serial = 1;
    test_certificate made{make_test_key(), x509_ptr{X509_new()}};
    X509 *cert = made.cert.get();
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), serial++);
    X509_gmtime_adj(X509_getm_notBefore(cert), wish.valid_from);
    X509_gmtime_adj(X509_getm_notAfter(cert), wish.valid_until);
    X509_set_pubkey(cert, made.key.get());
    X509_NAME *subject = X509_get_subject_name(cert);
    add_subject_text(subject, "O", wish.extra_name);
    if (!wish.common_name.empty()) {
        add_subject_text(subject, "CN", wish.common_name);
    }
    X509_set_issuer_name(cert, X509_get_subject_name(issuer ? issuer->cert.get() : cert));
    if (wish.is_ca) {
        BASIC_CONSTRAINTS *constraints = BASIC_CONSTRAINTS_new();
        constraints->ca = 0xff;
        X509_add1_ext_i2d(cert, NID_basic_constraints, constraints, 1, 0);
        BASIC_CONSTRAINTS_free(constraints);
    }
    add_alternative_names(cert, wish);
    X509_sign(cert, issuer ? issuer->key.get() : made.key.get(), EVP_sha256());
    return made;
}

inline test_certificate make_test_ca(const std::string &name = "test root")
{
    test_certificate_wish wish;
    wish.common_name = name;
    wish.is_ca = true;
    return make_test_certificate(wish);
}

inline void write_pem(const std::string &path, const test_certificate &certificate)
{
    const bio_ptr file{BIO_new_file(path.c_str(), "w")};
    PEM_write_bio_X509(file.get(), certificate.cert.get());
}

inline ssl_ctx_ptr make_server_context(const test_certificate &certificate)
{
    ssl_ctx_ptr context{SSL_CTX_new(TLS_server_method())};
    SSL_CTX_use_certificate(context.get(), certificate.cert.get());
    SSL_CTX_use_PrivateKey(context.get(), certificate.key.get());
    return context;
}
