#include "ios_validation/certificate.h"

#include <openssl/objects.h>
#include <openssl/pem.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "IAV";
constexpr char nonce_extension_oid[] = "1.2.840.113635.100.8.2";

/// Parsing a certificate costs more than verifying an assertion, so the root and the intermediate
/// that were good last are kept parsed. What they sign is verified anew each time.
struct trust_anchor {
    std::string pem;
    x509_ptr root;
    x509_store_ptr store;
};

struct parsed_link {
    std::vector<std::uint8_t> der;
    x509_ptr certificate;
};

struct module_state {
    trust_anchor anchor;
    parsed_link link;
};
module_state state;

const trust_anchor *trust_anchor_load(const char *pem)
{
    if (state.anchor.root != nullptr && state.anchor.pem == pem) {
        return &state.anchor;
    }
    const bio_ptr bio{BIO_new_mem_buf(pem, -1)};
    if (bio == nullptr) {
        return nullptr;
    }
    x509_ptr root{PEM_read_bio_X509(bio.get(), nullptr, openssl_no_passphrase, nullptr)};
    trust_anchor anchor{pem, std::move(root), x509_store_ptr{X509_STORE_new()}};
    if (anchor.root == nullptr || anchor.store == nullptr ||
        X509_STORE_add_cert(anchor.store.get(), anchor.root.get()) != 1) {
        return nullptr;
    }
    state.anchor = std::move(anchor);
    return &state.anchor;
}

x509_ptr certificate_parse(std::span<const std::uint8_t> der)
{
    const std::uint8_t *position = der.data();
    x509_ptr certificate{d2i_X509(nullptr, &position, static_cast<long>(der.size()))};
    return position == der.data() + der.size() ? std::move(certificate) : nullptr;
}

x509_ptr link_parse(std::span<const std::uint8_t> der)
{
    X509 *kept = state.link.certificate.get();
    if (kept != nullptr && std::ranges::equal(der, state.link.der) && X509_up_ref(kept) == 1) {
        return x509_ptr{kept};
    }
    return certificate_parse(der);
}

void link_keep(std::span<const std::uint8_t> der, x509_ptr certificate)
{
    if (certificate.get() != state.link.certificate.get()) {
        state.link = {{der.begin(), der.end()}, std::move(certificate)};
    }
}

void verification_error_log(int error)
{
    LOG_ERROR("Verification: %s", X509_verify_cert_error_string(error));
    if (error == X509_V_ERR_CERT_NOT_YET_VALID) {
        // A box without a battery-backed clock wakes up in 1970.
        LOG_WARN("Verification: the clock stands at %lld seconds since 1970",
                 static_cast<long long>(time(nullptr)));
    }
}

/// The store holds the root alone, so success should mean this already; what a chain ends at
/// decides who may pair, so it is looked at and not deduced.
bool chain_ends_at(X509_STORE_CTX *context, const X509 *root)
{
    const STACK_OF(X509) *chain = X509_STORE_CTX_get0_chain(context);
    const int length = sk_X509_num(chain);
    return length > 0 && X509_cmp(sk_X509_value(chain, length - 1), root) == 0;
}

bool chain_verify(const trust_anchor &anchor, X509 *leaf, X509 *intermediate)
{
    const x509_list_ptr links{sk_X509_new_null()};
    const x509_store_ctx_ptr context{X509_STORE_CTX_new()};
    if (links == nullptr || context == nullptr || sk_X509_push(links.get(), intermediate) <= 0 ||
        X509_STORE_CTX_init(context.get(), anchor.store.get(), leaf, links.get()) != 1) {
        return false;
    }
    if (X509_verify_cert(context.get()) != 1) {
        verification_error_log(X509_STORE_CTX_get_error(context.get()));
        return false;
    }
    return chain_ends_at(context.get(), anchor.root.get());
}

} // namespace

bool ios_app_certificate_is_root(const char *pem)
{
    return trust_anchor_load(pem) != nullptr;
}

x509_ptr ios_app_certificate_verify(const char *root_pem, std::span<const std::uint8_t> leaf_der,
                                    std::span<const std::uint8_t> intermediate_der)
{
    const trust_anchor *anchor = trust_anchor_load(root_pem);
    if (anchor == nullptr) {
        return nullptr;
    }
    x509_ptr leaf = certificate_parse(leaf_der);
    x509_ptr intermediate = link_parse(intermediate_der);
    if (leaf == nullptr || intermediate == nullptr ||
        !chain_verify(*anchor, leaf.get(), intermediate.get())) {
        return nullptr;
    }
    link_keep(intermediate_der, std::move(intermediate));
    return leaf;
}

std::span<const std::uint8_t> ios_app_certificate_nonce_extension(const X509 *certificate)
{
    const asn1_object_ptr oid{OBJ_txt2obj(nonce_extension_oid, 1)};
    const int index = oid != nullptr ? X509_get_ext_by_OBJ(certificate, oid.get(), -1) : -1;
    if (index < 0) {
        return {};
    }
    const ASN1_OCTET_STRING *value = X509_EXTENSION_get_data(X509_get_ext(certificate, index));
    return {ASN1_STRING_get0_data(value), static_cast<std::size_t>(ASN1_STRING_length(value))};
}

std::optional<ios_app_public_key> ios_app_certificate_public_key(const X509 *certificate)
{
    const EVP_PKEY *key = X509_get0_pubkey(certificate);
    const ASN1_BIT_STRING *point = X509_get0_pubkey_bitstr(certificate);
    if (key == nullptr || point == nullptr || EVP_PKEY_base_id(key) != EVP_PKEY_EC) {
        return std::nullopt;
    }
    unsigned char *der = nullptr;
    const int length = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &der);
    if (length <= 0) {
        return std::nullopt;
    }
    return ios_app_public_key{
        {ASN1_STRING_get0_data(point), static_cast<std::size_t>(ASN1_STRING_length(point))},
        openssl_bytes{der},
        static_cast<std::size_t>(length)};
}
