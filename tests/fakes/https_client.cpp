#include "fakes/https_client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "fakes/emulated.h"

namespace {

using evp_pkey_ctx_ptr = handle<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using file_ptr = handle<std::FILE, std::fclose>;

void require(bool condition, const char *what)
{
    if (!condition) {
        throw std::runtime_error{what};
    }
}

evp_pkey_ptr make_key()
{
    const evp_pkey_ctx_ptr context{EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr)};
    EVP_PKEY *key = nullptr;
    require(EVP_PKEY_keygen_init(context.get()) == 1 &&
                EVP_PKEY_CTX_set_ec_paramgen_curve_nid(context.get(), NID_X9_62_prime256v1) == 1 &&
                EVP_PKEY_CTX_set_ec_param_enc(context.get(), OPENSSL_EC_NAMED_CURVE) == 1 &&
                EVP_PKEY_keygen(context.get(), &key) == 1,
            "key");
    return evp_pkey_ptr{key};
}

x509_ptr make_certificate(EVP_PKEY *key)
{
    x509_ptr certificate{X509_new()};
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
    X509_NAME *const name = X509_get_subject_name(certificate.get());
    const unsigned char common_name[] = "test server";
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, common_name, -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    X509_set_pubkey(certificate.get(), key);
    require(X509_sign(certificate.get(), key, EVP_sha256()) > 0, "certificate");
    return certificate;
}

sockaddr_in loopback(const char *address, unsigned short port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    inet_pton(AF_INET, address, &result.sin_addr);
    return result;
}

void tick(evutil_socket_t, short, void *)
{
}

} // namespace

tls_identity::tls_identity(const char *passphrase)
{
    char pattern[] = "/tmp/velm_test_XXXXXX";
    require(mkdtemp(pattern) != nullptr, "directory");
    directory_ = pattern;
    cert_path = directory_ + "/cert.pem";
    key_path = directory_ + "/key.pem";
    const evp_pkey_ptr key = make_key();
    const x509_ptr certificate = make_certificate(key.get());
    const file_ptr cert_file{std::fopen(cert_path.c_str(), "we")};
    const file_ptr key_file{std::fopen(key_path.c_str(), "we")};
    require(PEM_write_X509(cert_file.get(), certificate.get()) == 1, "certificate file");
    std::string secret = passphrase == nullptr ? "" : passphrase;
    require(PEM_write_PKCS8PrivateKey(
                key_file.get(), key.get(), passphrase == nullptr ? nullptr : EVP_aes_128_cbc(),
                secret.data(), static_cast<int>(secret.size()), nullptr, nullptr) == 1,
            "key file");
}

tls_identity::~tls_identity()
{
    std::remove(cert_path.c_str());
    std::remove(key_path.c_str());
    std::remove(directory_.c_str());
}

unsigned short free_port()
{
    // Below the range that the kernel gives to clients, and apart from tests that run beside us.
    static unsigned int next = static_cast<unsigned int>(getpid()) * 37U;
    for (int tries = 0; tries < 1000; ++tries) {
        const auto port = static_cast<unsigned short>(10000U + next++ % 20000U);
        const unique_fd fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
        const int on = 1; // as the server does: connections that ended are no hindrance
        setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        const sockaddr_in address = loopback("127.0.0.1", port);
        if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
            return port;
        }
    }
    throw std::runtime_error{"no free port"};
}

bool turn_until(event_base *loop, const std::function<bool()> &condition)
{
    // Our side of the sockets is not on the loop: a turn ends within a millisecond.
    const event_ptr ticks{event_new(loop, -1, EV_PERSIST, tick, nullptr)};
    const timeval millisecond{0, 1000};
    event_add(ticks.get(), &millisecond);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds{is_emulated() ? 60 : 10};
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        event_base_loop(loop, EVLOOP_ONCE);
    }
    return true;
}

void turn_for(event_base *loop, std::chrono::milliseconds time)
{
    const auto end = std::chrono::steady_clock::now() + time;
    (void)turn_until(loop, [end] { return std::chrono::steady_clock::now() > end; });
}

https_client::https_client(event_base *loop, unsigned short port, const char *from)
    : loop_{loop}, context_{SSL_CTX_new(TLS_client_method())}, fd_{socket(
                                                                   AF_INET,
                                                                   SOCK_STREAM | SOCK_CLOEXEC, 0)}
{
    SSL_CTX_set_session_cache_mode(context_.get(),
                                   SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    SSL_CTX_sess_set_new_cb(context_.get(), count_session);
    SSL_CTX_set_security_level(context_.get(), 0); // the oldest TLS versions can be offered
    const sockaddr_in source = loopback(from, 0);
    const sockaddr_in server = loopback("127.0.0.1", port);
    require(bind(fd_.get(), reinterpret_cast<const sockaddr *>(&source), sizeof source) == 0,
            "bind");
    // The kernel completes it without the server.
    require(connect(fd_.get(), reinterpret_cast<const sockaddr *>(&server), sizeof server) == 0,
            "connect");
    fcntl(fd_.get(), F_SETFL, O_NONBLOCK);
    const int on = 1; // each record leaves at once
    setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    tls_.reset(SSL_new(context_.get()));
    SSL_set_app_data(tls_.get(), this);
    SSL_set_fd(tls_.get(), fd_.get());
    SSL_set_connect_state(tls_.get());
}

int https_client::count_session(SSL *tls, SSL_SESSION *)
{
    ++static_cast<https_client *>(SSL_get_app_data(tls))->sessions_;
    return 0;
}

void https_client::limit_tls(int max_version)
{
    SSL_set_min_proto_version(tls_.get(), 0);
    SSL_set_max_proto_version(tls_.get(), max_version);
}

void https_client::resume(SSL_SESSION *session)
{
    SSL_set_session(tls_.get(), session);
}

bool https_client::handshake()
{
    int rc = -1;
    const bool done = turn_until(loop_, [this, &rc] {
        ERR_clear_error();
        rc = SSL_do_handshake(tls_.get());
        const int error = SSL_get_error(tls_.get(), rc);
        return rc == 1 || (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE);
    });
    ended_ = rc != 1;
    return done && rc == 1;
}

void https_client::send(std::string_view bytes)
{
    (void)turn_until(loop_, [this, &bytes] {
        ERR_clear_error();
        const int sent = SSL_write(tls_.get(), bytes.data(), static_cast<int>(bytes.size()));
        if (sent <= 0) {
            const int error = SSL_get_error(tls_.get(), sent);
            return error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE;
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
        return bytes.empty();
    });
}

/// One record at most.
bool https_client::read_some()
{
    char bytes[17000];
    ERR_clear_error();
    const int size = SSL_read(tls_.get(), bytes, sizeof bytes);
    if (size > 0) {
        received_.append(bytes, static_cast<std::size_t>(size));
        records += std::to_string(size) + " ";
        return true;
    }
    const int error = SSL_get_error(tls_.get(), size);
    ended_ = ended_ || (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE);
    return false;
}

http_reply https_client::receive()
{
    http_reply reply;
    records.clear();
    std::size_t head_size = 0;
    std::size_t body_size = 0;
    const auto is_whole = [&] {
        const std::size_t end = received_.find("\r\n\r\n");
        if (end == std::string::npos) {
            return false;
        }
        head_size = end + 4;
        const std::size_t length = received_.find("Content-Length: ");
        body_size = length < end ? std::strtoul(&received_[length + 16], nullptr, 10) : 0;
        return received_.size() >= head_size + body_size;
    };
    (void)turn_until(loop_, [&] {
        while (!is_whole() && read_some()) {
        }
        return is_whole() || ended_;
    });
    if (is_whole()) {
        reply.head = received_.substr(0, head_size);
        reply.body = received_.substr(head_size, body_size);
        reply.status = std::atoi(reply.head.c_str() + sizeof "HTTP/1.1");
        received_.erase(0, head_size + body_size);
    }
    return reply;
}

http_reply https_client::ask(std::string_view request)
{
    send(request);
    return receive();
}

bool https_client::has_ended()
{
    while (!ended_ && read_some()) {
    }
    return ended_;
}

bool https_client::is_closed()
{
    return turn_until(loop_, [this] { return has_ended(); });
}

void https_client::reset()
{
    const linger hard{1, 0};
    setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    SSL_set_quiet_shutdown(tls_.get(), 1);
    fd_.reset();
    ended_ = true;
}
