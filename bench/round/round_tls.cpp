#include <array>
#include <utility>

#include "floor.h"

namespace {

constexpr char groups[] = "X25519:P-256:P-384";
constexpr char server_suites[] =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";
constexpr int request_size = 700;
constexpr int answer_size = 180;

void require(bool done, const char *what)
{
    if (!done) {
        round_floor_fail(std::string{"TLS: cannot "} + what);
    }
}

/// One end.
struct tls_end {
    bool is_daemons;
    ssl_ptr tls;
    double cpu_us = 0;

    /// Its time counts.
    void work(const std::function<void()> &step)
    {
        cpu_us += round_floor_cpu_us([this, &step] {
            if (is_daemons) {
                round_floor_counted(step);
            } else {
                step();
            }
        });
    }
    void shake_hands()
    {
        work([this] { (void)SSL_do_handshake(tls.get()); });
    }
    void write(int size)
    {
        work([this, size] {
            static const std::array<char, request_size> bytes{};
            require(SSL_write(tls.get(), bytes.data(), size) == size, "write");
        });
    }
    void read()
    {
        work([this] {
            std::array<char, 4096> bytes;
            require(SSL_read(tls.get(), bytes.data(), static_cast<int>(bytes.size())) > 0, "read");
        });
    }
    /// Also reads the other one's farewell.
    void end()
    {
        work([this] {
            (void)SSL_shutdown(tls.get());
            tls.reset();
        });
    }
};

void join(tls_end &server, tls_end &client)
{
    bio_ptr to_client{BIO_new(BIO_s_mem())};
    bio_ptr to_server{BIO_new(BIO_s_mem())};
    require(to_client != nullptr && to_server != nullptr, "make a buffer");
    BIO_set_mem_eof_return(to_client.get(), -1);
    BIO_set_mem_eof_return(to_server.get(), -1);
    BIO_up_ref(to_client.get());
    BIO_up_ref(to_server.get());
    SSL_set_bio(server.tls.get(), to_server.get(), to_client.get());
    SSL_set_bio(client.tls.get(), to_client.release(), to_server.release());
}

void shake_hands(tls_end &server, tls_end &client)
{
    constexpr int flights = 8;
    for (int i = 0; i < flights; ++i) {
        client.shake_hands();
        server.shake_hands();
        if (SSL_is_init_finished(server.tls.get()) == 1 &&
            SSL_is_init_finished(client.tls.get()) == 1) {
            return;
        }
    }
    round_floor_fail("TLS: the handshake fails");
}

} // namespace

round_tls::round_tls(ssl_ctx_ptr server, ssl_ctx_ptr client, std::string host, int exchanges,
                     round_tls_daemon daemon)
    : server_{std::move(server)}, client_{std::move(client)}, host_{std::move(host)},
      exchanges_{exchanges}, daemon_{daemon}
{
}

round_tls::times round_tls::connect()
{
    tls_end server{daemon_ == round_tls_daemon::server, nullptr};
    tls_end client{daemon_ == round_tls_daemon::client, nullptr};
    server.work([&] {
        server.tls.reset(SSL_new(server_.get()));
        SSL_set_accept_state(server.tls.get());
    });
    client.work([&] {
        client.tls.reset(SSL_new(client_.get()));
        SSL_set_connect_state(client.tls.get());
        require(SSL_set1_host(client.tls.get(), host_.c_str()) == 1, "name the host");
    });
    join(server, client);
    shake_hands(server, client);
    for (int i = 0; i < exchanges_; ++i) {
        client.write(request_size);
        server.read();
        server.write(answer_size);
        client.read();
    }
    client.end();
    server.end();
    return {server.cpu_us, client.cpu_us};
}

ssl_ctx_ptr round_tls_server(const std::string &certificate, const std::string &key, bool is_cloud)
{
    ssl_ctx_ptr made{SSL_CTX_new(TLS_server_method())};
    require(SSL_CTX_use_certificate_chain_file(made.get(), certificate.c_str()) == 1 &&
                SSL_CTX_use_PrivateKey_file(made.get(), key.c_str(), SSL_FILETYPE_PEM) == 1,
            "use the certificate");
    SSL_CTX_set_min_proto_version(made.get(), TLS1_3_VERSION);
    if (!is_cloud) {
        SSL_CTX_set_options(made.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE);
        SSL_CTX_set_num_tickets(made.get(), 1);
        require(SSL_CTX_set_ciphersuites(made.get(), server_suites) == 1 &&
                    SSL_CTX_set1_groups_list(made.get(), groups) == 1,
                "choose the suites");
    }
    return made;
}

ssl_ctx_ptr round_tls_client(const std::string &authorities)
{
    ssl_ctx_ptr made{SSL_CTX_new(TLS_client_method())};
    require(SSL_CTX_load_verify_locations(made.get(), authorities.c_str(), nullptr) == 1 &&
                SSL_CTX_set1_groups_list(made.get(), groups) == 1,
            "read the authorities");
    SSL_CTX_set_verify(made.get(), SSL_VERIFY_PEER, nullptr);
    return made;
}
