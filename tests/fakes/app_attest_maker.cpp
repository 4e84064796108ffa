#include "fakes/app_attest_maker.h"

#include <openssl/ec.h>
#include <openssl/objects.h>
#include <openssl/pem.h>

#include <cstdio>
#include <cstdlib>

namespace {

/// A call of the maker that failed leaves nothing to test.
void require(bool condition, const char *what)
{
    if (!condition) {
        std::fprintf(stderr, "app attest maker: %s\n", what);
        std::abort();
    }
}

test_bytes big_endian(std::uint64_t value, std::size_t width)
{
    test_bytes bytes(width);
    for (std::size_t i = 0; i < width; ++i) {
        bytes[width - 1 - i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
    return bytes;
}

evp_pkey_ptr key_generate(EVP_PKEY_CTX *context)
{
    EVP_PKEY *key = nullptr;
    require(EVP_PKEY_keygen(context, &key) == 1, "EVP_PKEY_keygen");
    return evp_pkey_ptr{key};
}

template <auto Encode, typename T>
test_bytes der_of(T *object)
{
    unsigned char *der = nullptr;
    const int length = Encode(object, &der);
    require(length > 0, "DER encoding");
    const openssl_bytes owner{der};
    return {der, der + length};
}

void name_set(X509 *certificate, const std::string &name)
{
    X509_NAME *subject = X509_get_subject_name(certificate);
    require(X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                                       reinterpret_cast<const unsigned char *>(name.c_str()), -1,
                                       -1, 0) == 1,
            "X509_NAME_add_entry_by_txt");
}

void extension_add(X509 *certificate, const char *oid, bool critical, const test_bytes &value)
{
    const asn1_object_ptr object{OBJ_txt2obj(oid, 1)};
    const handle<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free> data{ASN1_OCTET_STRING_new()};
    require(ASN1_OCTET_STRING_set(data.get(), value.data(), static_cast<int>(value.size())) == 1,
            "ASN1_OCTET_STRING_set");
    const handle<X509_EXTENSION, X509_EXTENSION_free> extension{
        X509_EXTENSION_create_by_OBJ(nullptr, object.get(), critical ? 1 : 0, data.get())};
    require(X509_add_ext(certificate, extension.get(), -1) == 1, "X509_add_ext");
}

} // namespace

test_bytes bytes_joined(const std::vector<test_bytes> &pieces)
{
    test_bytes all;
    for (const test_bytes &piece : pieces) {
        all.insert(all.end(), piece.begin(), piece.end());
    }
    return all;
}

test_bytes cbor_make_head(unsigned major, std::uint64_t argument)
{
    const auto initial = [major](unsigned info) {
        return test_bytes{static_cast<std::uint8_t>(major << 5 | info)};
    };
    if (argument < 24) {
        return initial(static_cast<unsigned>(argument));
    }
    if (argument < 0x100) {
        return bytes_joined({initial(24), big_endian(argument, 1)});
    }
    return bytes_joined({initial(25), big_endian(argument, 2)});
}

test_bytes cbor_make_text(std::string_view text)
{
    return bytes_joined({cbor_make_head(3, text.size()), bytes_of(text)});
}

test_bytes cbor_make_bytes(const test_bytes &bytes)
{
    return bytes_joined({cbor_make_head(2, bytes.size()), bytes});
}

test_bytes cbor_make_array(const std::vector<test_bytes> &items)
{
    return bytes_joined({cbor_make_head(4, items.size()), bytes_joined(items)});
}

test_bytes cbor_make_map(const cbor_pairs &pairs)
{
    test_bytes map = cbor_make_head(5, pairs.size());
    for (const auto &[key, value] : pairs) {
        map = bytes_joined({map, key, value});
    }
    return map;
}

test_bytes bytes_of(std::string_view text)
{
    return {text.begin(), text.end()};
}

test_bytes sha256_of(const test_bytes &bytes)
{
    test_bytes result(32);
    require(EVP_Digest(bytes.data(), bytes.size(), result.data(), nullptr, EVP_sha256(), nullptr) ==
                1,
            "EVP_Digest");
    return result;
}

evp_pkey_ptr ec_key_make(int curve_nid)
{
    const evp_pkey_ctx_ptr context{EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr)};
    require(EVP_PKEY_keygen_init(context.get()) == 1 &&
                EVP_PKEY_CTX_set_ec_paramgen_curve_nid(context.get(), curve_nid) == 1,
            "EVP_PKEY_keygen_init");
    return key_generate(context.get());
}

evp_pkey_ptr ed25519_key_make()
{
    const evp_pkey_ctx_ptr context{EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr)};
    require(EVP_PKEY_keygen_init(context.get()) == 1, "EVP_PKEY_keygen_init");
    return key_generate(context.get());
}

test_bytes public_key_der(EVP_PKEY *key)
{
    return der_of<i2d_PUBKEY>(key);
}

test_bytes public_key_point(EVP_PKEY *key)
{
    const test_bytes der = public_key_der(key);
    return {der.end() - 65, der.end()};
}

test_bytes ecdsa_sign(EVP_PKEY *key, const test_bytes &message)
{
    const evp_md_ctx_ptr context{EVP_MD_CTX_new()};
    test_bytes signature(256);
    std::size_t size = signature.size();
    require(EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
                EVP_DigestSign(context.get(), signature.data(), &size, message.data(),
                               message.size()) == 1,
            "EVP_DigestSign");
    signature.resize(size);
    return signature;
}

x509_ptr certificate_make(const certificate_wish &wish)
{
    static long serial = 0;
    x509_ptr certificate{X509_new()};
    X509 *x = certificate.get();
    X509_set_version(x, 2); // v3
    ASN1_INTEGER_set(X509_get_serialNumber(x), ++serial);
    ASN1_TIME_set(X509_getm_notBefore(x), wish.from);
    ASN1_TIME_set(X509_getm_notAfter(x), wish.to);
    name_set(x, wish.name);
    X509_set_issuer_name(x, X509_get_subject_name(wish.issuer != nullptr ? wish.issuer : x));
    require(X509_set_pubkey(x, wish.subject_key) == 1, "X509_set_pubkey");
    // basicConstraints: SEQUENCE { BOOLEAN TRUE } for an authority, else an empty SEQUENCE.
    extension_add(x, "2.5.29.19", true,
                  wish.ca ? test_bytes{0x30, 0x03, 0x01, 0x01, 0xff} : test_bytes{0x30, 0x00});
    if (wish.nonce_extension.has_value()) {
        extension_add(x, "1.2.840.113635.100.8.2", false, *wish.nonce_extension);
    }
    EVP_PKEY *signer = wish.issuer_key != nullptr ? wish.issuer_key : wish.subject_key;
    const EVP_MD *digest = EVP_PKEY_base_id(signer) == EVP_PKEY_ED25519 ? nullptr : EVP_sha256();
    require(X509_sign(x, signer, digest) > 0, "X509_sign");
    return certificate;
}

test_bytes certificate_der(X509 *certificate)
{
    return der_of<i2d_X509>(certificate);
}

std::string certificate_pem(X509 *certificate)
{
    const bio_ptr bio{BIO_new(BIO_s_mem())};
    require(PEM_write_bio_X509(bio.get(), certificate) == 1, "PEM_write_bio_X509");
    std::string pem(BIO_ctrl_pending(bio.get()), '\0');
    BIO_read(bio.get(), pem.data(), static_cast<int>(pem.size()));
    return pem;
}

app_attest_authority authority_make(const std::string &name, const app_attest_authority *issuer)
{
    app_attest_authority authority{ec_key_make(NID_secp384r1), nullptr};
    certificate_wish wish{name, authority.key.get()};
    wish.ca = true;
    if (issuer != nullptr) {
        wish.issuer = issuer->certificate.get();
        wish.issuer_key = issuer->key.get();
    }
    authority.certificate = certificate_make(wish);
    return authority;
}

test_bytes auth_data_wish::assertion() const
{
    return bytes_joined({rp_id_hash, {flags}, big_endian(counter, 4)});
}

test_bytes auth_data_wish::attestation() const
{
    return bytes_joined({assertion(), test_bytes(aaguid.begin(), aaguid.end()),
                         big_endian(credential_id.size(), 2), credential_id, trailer});
}

test_bytes attestation_parts::statement() const
{
    std::vector<test_bytes> certificates;
    for (const test_bytes &certificate : x5c) {
        certificates.push_back(cbor_make_bytes(certificate));
    }
    return cbor_make_map({{cbor_make_text("x5c"), cbor_make_array(certificates)},
                          {cbor_make_text("receipt"), cbor_make_bytes(receipt)}});
}

test_bytes attestation_parts::encode() const
{
    return cbor_make_map({{cbor_make_text("fmt"), cbor_make_text(fmt)},
                          {cbor_make_text("attStmt"), statement()},
                          {cbor_make_text("authData"), cbor_make_bytes(auth_data)}});
}

test_bytes assertion_encode(const test_bytes &signature, const test_bytes &auth_data)
{
    return cbor_make_map({{cbor_make_text("signature"), cbor_make_bytes(signature)},
                          {cbor_make_text("authenticatorData"), cbor_make_bytes(auth_data)}});
}

test_bytes nonce_extension_value(const test_bytes &nonce)
{
    return bytes_joined({{0x30, 0x24, 0xa1, 0x22, 0x04, 0x20}, nonce});
}

app_attest_phone::app_attest_phone(std::string id)
    : app_id{std::move(id)}, root{authority_make("Test Root CA")},
      intermediate{authority_make("Test CA 1", &root)}, key{ec_key_make(NID_X9_62_prime256v1)}
{
}

auth_data_wish app_attest_phone::auth_data() const
{
    auth_data_wish wish;
    wish.rp_id_hash = sha256_of(bytes_of(app_id));
    wish.credential_id = sha256_of(public_key_point(key.get()));
    return wish;
}

test_bytes app_attest_phone::leaf_with_extension(const std::optional<test_bytes> &value) const
{
    const certificate_wish wish{"Test Credential",      key.get(), intermediate.certificate.get(),
                                intermediate.key.get(), false,     value};
    return certificate_der(certificate_make(wish).get());
}

test_bytes app_attest_phone::leaf(const test_bytes &auth_data_bytes,
                                  const test_bytes &client_data_hash) const
{
    return leaf_with_extension(
        nonce_extension_value(sha256_of(bytes_joined({auth_data_bytes, client_data_hash}))));
}

attestation_parts app_attest_phone::attest(const auth_data_wish &wish,
                                           const test_bytes &client_data_hash) const
{
    attestation_parts parts;
    parts.auth_data = wish.attestation();
    parts.x5c = {leaf(parts.auth_data, client_data_hash),
                 certificate_der(intermediate.certificate.get())};
    return parts;
}

test_bytes app_attest_phone::assert_request(const auth_data_wish &wish,
                                            const test_bytes &client_data_hash) const
{
    const test_bytes bytes = wish.assertion();
    const test_bytes nonce = sha256_of(bytes_joined({bytes, client_data_hash}));
    return assertion_encode(ecdsa_sign(key.get(), nonce), bytes);
}
