#include "bare_tls.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace {

constexpr char groups[] = "X25519:P-256:P-384";
constexpr char server_suites[] =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";
constexpr char client_tls12_ciphers[] = "DEFAULT:!kDHE";

} // namespace

void round_floor_fail(const char *what)
{
    std::fprintf(stderr, "velm-round-floor: cannot %s\n", what);
    std::exit(1);
}

ssl_ctx_ptr bare_tls_server(const std::string &certificate, const std::string &key)
{
    ssl_ctx_ptr made{SSL_CTX_new(TLS_server_method())};
    round_floor_require(
        SSL_CTX_use_certificate_chain_file(made.get(), certificate.c_str()) == 1 &&
            SSL_CTX_use_PrivateKey_file(made.get(), key.c_str(), SSL_FILETYPE_PEM) == 1,
        "use the certificate");
    SSL_CTX_set_min_proto_version(made.get(), TLS1_3_VERSION);
    SSL_CTX_set_options(made.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE);
    SSL_CTX_set_num_tickets(made.get(), 1);
    round_floor_require(SSL_CTX_set_ciphersuites(made.get(), server_suites) == 1 &&
                            SSL_CTX_set1_groups_list(made.get(), groups) == 1,
                        "choose the suites");
    return made;
}

ssl_ctx_ptr bare_tls_client(const std::string &authorities)
{
    ssl_ctx_ptr made{SSL_CTX_new(TLS_client_method())};
    const bool is_set_up =
        SSL_CTX_load_verify_locations(made.get(), authorities.c_str(), nullptr) == 1 &&
        SSL_CTX_set_cipher_list(made.get(), client_tls12_ciphers) == 1 &&
        SSL_CTX_set1_groups_list(made.get(), groups) == 1;
    round_floor_require(is_set_up, "read the authorities");
    SSL_CTX_set_min_proto_version(made.get(), TLS1_2_VERSION);
    SSL_CTX_set_options(made.get(), SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_verify(made.get(), SSL_VERIFY_PEER, nullptr);
    return made;
}

bare_tls_wire::bare_tls_wire() : received{BIO_new(BIO_s_mem())}, waiting{BIO_new(BIO_s_mem())}
{
    round_floor_require(received != nullptr && waiting != nullptr, "make a buffer");
}

bare_tls::bare_tls(bare_tls_wire &wire, SSL_CTX *context, unique_fd socket)
    : wire_{wire}, socket_{std::move(socket)}, tls_{SSL_new(context)}
{
    round_floor_require(tls_ != nullptr, "begin TLS");
    (void)BIO_reset(wire.received.get());
    (void)BIO_reset(wire.waiting.get());
    BIO_up_ref(wire.received.get());
    BIO_up_ref(wire.waiting.get());
    SSL_set_bio(tls_.get(), wire.received.get(), wire.waiting.get());
}

void bare_tls::accept()
{
    SSL_set_accept_state(tls_.get());
    shake_hands();
}

void bare_tls::connect(std::string host)
{
    SSL_set_connect_state(tls_.get());
    round_floor_require(SSL_ctrl(tls_.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME,
                                 TLSEXT_NAMETYPE_host_name, host.data()) == 1 &&
                            SSL_set1_host(tls_.get(), host.c_str()) == 1,
                        "name the host");
    shake_hands();
}

void bare_tls::shake_hands()
{
    for (int rc = SSL_do_handshake(tls_.get()); rc != 1; rc = SSL_do_handshake(tls_.get())) {
        round_floor_require(SSL_get_error(tls_.get(), rc) == SSL_ERROR_WANT_READ, "shake hands");
        send();
        round_floor_require(receive(), "shake hands: the other side is gone");
    }
}

void bare_tls::write(std::string_view text)
{
    const int length = static_cast<int>(text.size());
    round_floor_require(SSL_write(tls_.get(), text.data(), length) == length, "write");
    send();
}

std::string_view bare_tls::read()
{
    auto &text = wire_.text;
    for (;;) {
        const int length = SSL_read(tls_.get(), text.data(), static_cast<int>(text.size()));
        if (length > 0) {
            return {text.data(), static_cast<std::size_t>(length)};
        }
        round_floor_require(SSL_get_error(tls_.get(), length) == SSL_ERROR_WANT_READ, "read");
        if (!receive()) {
            return {};
        }
    }
}

void bare_tls::say_end()
{
    (void)SSL_shutdown(tls_.get());
    send(MSG_MORE); // the socket is closed next: both go in one packet
}

void bare_tls::send(int flags)
{
    auto &packet = wire_.packet;
    const int length =
        BIO_read(wire_.waiting.get(), packet.data(), static_cast<int>(packet.size()));
    if (length > 0) { // a server has nothing to say before it has heard
        round_floor_require(
            ::send(socket_.get(), packet.data(), static_cast<std::size_t>(length), flags) == length,
            "send");
    }
}

bool bare_tls::receive()
{
    auto &packet = wire_.packet;
    const ssize_t length = ::read(socket_.get(), packet.data(), packet.size());
    round_floor_require(length >= 0, "receive");
    const int size = static_cast<int>(length);
    return size > 0 && BIO_write(wire_.received.get(), packet.data(), size) == size;
}
