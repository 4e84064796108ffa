#include "http/tls.h"

#include <arpa/inet.h>
#include <openssl/err.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <optional>
#include <utility>

#include "crypto/openssl_error.h"
#include "handles/exhaustion.h"
#include "http/hostname.h"
#include "http/sessions.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "http_client";
constexpr char set_up[] = "http_client_setup_ssl"; // whose work a fatal line names

/// What became of reading a CA file.
struct loaded_context {
    std::string ca_file;
    ssl_ctx_ptr context;     // null when the file cannot be used
    unsigned long error = 0; // OpenSSL's
};

struct module_state {
    ssl_ctx_ptr default_context;
    std::optional<loaded_context> prepared;
    // Of a TLS object's peer. Indexes are never given back, so one serves every reload.
    int peer_index = -1;
    char peer_index_name[16] = "http_client_ctx";
};
module_state state;

/// Any other key exchange would cost this processor up to seconds, for a server's asking.
constexpr char groups[] = "X25519:P-256:P-384";
constexpr char tls12_ciphers[] = "DEFAULT:!kDHE";
/// Nearly every request is shorter. OpenSSL takes a buffer of this size, in place of 17 kB, for as long as a
/// connection lasts.
constexpr long sent_record = 4096;

using subject_text = std::array<char, 256>;

int peer_index()
{
    if (state.peer_index < 0) {
        state.peer_index =
            SSL_get_ex_new_index(0, state.peer_index_name, nullptr, nullptr, nullptr);
    }
    return state.peer_index;
}

loaded_context load_context(const char *ca_file)
{
    ERR_clear_error();
    ssl_ctx_ptr context{SSL_CTX_new(TLS_method())};
    if (context == nullptr) {
        fatal_not_enough_memory(log_category, __FILE__, __LINE__, set_up, "ssl_ctx");
    }
    errno = 0;
    if (SSL_CTX_load_verify_locations(context.get(), ca_file, nullptr) != 1) {
        memory_is_exhausted_if(errno == ENOMEM);
        context.reset();
    }
    return {ca_file != nullptr ? ca_file : "", std::move(context), ERR_get_error()};
}

/// What was prepared serves once, and only for the file that it was prepared for. A file that could not
/// be used then may be whole now.
loaded_context take_context(const char *ca_file)
{
    std::optional<loaded_context> prepared = std::exchange(state.prepared, std::nullopt);
    const bool serves = prepared && prepared->context != nullptr && ca_file != nullptr &&
                        prepared->ca_file == ca_file;
    return serves ? *std::move(prepared) : load_context(ca_file);
}

subject_text subject_of(X509 *cert)
{
    subject_text text{};
    if (cert != nullptr) {
        X509_NAME_oneline(X509_get_subject_name(cert), text.data(), static_cast<int>(text.size()));
    }
    return text;
}

bool refuse(const char *reason, const char *host, X509 *cert)
{
    LOG_ERROR("HTTPS NOK - got '%s', server: '%s', cert: '%s'", reason, host,
              subject_of(cert).data());
    return false;
}

bool accept_cert(const char *host, X509 *cert)
{
    LOG_TRACE("HTTPS OK - server: '%s', cert: '%s'", host, subject_of(cert).data());
    return true;
}

bool refuse_chain(X509_STORE_CTX *store, const char *host)
{
    const int error = X509_STORE_CTX_get_error(store);
    LOG_ERROR("HTTPS NOK - verify cert error: %s", X509_verify_cert_error_string(error));
    if (error == X509_V_ERR_CERT_NOT_YET_VALID) {
        // An access point without a clock of its own starts in 1970.
        LOG_ERROR("%s - is the clock right? now: %lld", __func__,
                  static_cast<long long>(time(nullptr)));
    }
    return refuse("Error", host, X509_STORE_CTX_get_current_cert(store));
}

bool check_hostname(X509_STORE_CTX *store, const char *host)
{
    X509 *cert = X509_STORE_CTX_get0_cert(store);
    const http_client_hostname_result result = http_client_validate_hostname(host, cert);
    if (result == http_client_hostname_result::MatchFound) {
        return accept_cert(host, cert);
    }
    X509_STORE_CTX_set_error(store, X509_V_ERR_HOSTNAME_MISMATCH);
    return refuse(http_client_hostname_result_name(result), host, cert);
}

const http_client_peer *peer_of(const SSL *ssl)
{
    return ssl == nullptr
               ? nullptr
               : static_cast<const http_client_peer *>(SSL_get_ex_data(ssl, peer_index()));
}

bool server_is_the_one_meant(X509_STORE_CTX *store)
{
    const http_client_peer *peer = peer_of(static_cast<const SSL *>(
        X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx())));
    if (peer == nullptr) {
        X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
        return refuse("Error", "", X509_STORE_CTX_get0_cert(store));
    }
    const char *host = peer->host.c_str();
    if (peer->skip_server_verification) {
        LOG_TRACE("HTTPS OK - server: '%s' server verification disabled", host);
        return true;
    }
    if (X509_verify_cert(store) != 1) {
        return refuse_chain(store, host);
    }
    if (peer->skip_hostname_verification) {
        LOG_TRACE("HTTPS OK - server: '%s', hostname verification disabled", host);
        return accept_cert(host, X509_STORE_CTX_get0_cert(store));
    }
    return check_hostname(store, host);
}

int verify_callback(X509_STORE_CTX *store, void *) noexcept
{
    return server_is_the_one_meant(store) ? 1 : 0;
}

bool is_fully_verified(const http_client_peer &peer)
{
    return !peer.skip_server_verification && !peer.skip_hostname_verification;
}

bool is_small(const SSL *ssl, const SSL_SESSION *session)
{
    const unsigned char *ticket = nullptr;
    std::size_t size = 0;
    SSL_SESSION_get0_ticket(session, &ticket, &size);
    STACK_OF(X509) *const chain = SSL_get_peer_cert_chain(ssl);
    // A null chain has -1 certificates.
    for (int i = 0; i < sk_X509_num(chain) && size <= http_client_session_size_max; ++i) {
        size += static_cast<std::size_t>(std::max(0, i2d_X509(sk_X509_value(chain, i), nullptr)));
    }
    return size <= http_client_session_size_max;
}

/// Called when the server sends a ticket. 1: the session is ours now. Not from a connection that is older
/// than the context of now: other authorities may have vouched for its server.
int on_session(SSL *ssl, SSL_SESSION *session) noexcept
{
    const http_client_peer *peer = peer_of(ssl);
    const bool counts = peer != nullptr && is_fully_verified(*peer) &&
                        SSL_get_SSL_CTX(ssl) == state.default_context.get() &&
                        is_small(ssl, session);
    return counts && http_client_session_keep(peer->host, session, SSL_session_reused(ssl) != 0,
                                              std::chrono::steady_clock::now())
               ? 1
               : 0;
}

/// Sessions are kept by us, for the hosts that they belong to.
void keep_sessions_of(SSL_CTX *context)
{
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    SSL_CTX_sess_set_new_cb(context, on_session);
}

bool is_address(const char *host)
{
    std::array<unsigned char, sizeof(in6_addr)> address{};
    return inet_pton(AF_INET, host, address.data()) == 1 ||
           inet_pton(AF_INET6, host, address.data()) == 1;
}

} // namespace

bool http_client_tls_is_set_up()
{
    return state.default_context != nullptr;
}

ssl_ptr http_client_tls_new(const http_client_peer *peer)
{
    ssl_ptr ssl{SSL_new(state.default_context.get())};
    REQUIRE_MEMORY(ssl, "ssl");
    const char *host = peer->host.c_str();
    // Server names are names: an address must not be sent as one.
    if (!is_address(host) && SSL_ctrl(ssl.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME,
                                      TLSEXT_NAMETYPE_host_name, const_cast<char *>(host)) != 1) {
        return nullptr;
    }
    const int rc = SSL_set_ex_data(ssl.get(), peer_index(), const_cast<http_client_peer *>(peer));
    REQUIRE_CALL(rc == 1, "SSL_set_ex_data(ssl, index, peer)", rc);
    if (is_fully_verified(*peer)) {
        http_client_session_offer(peer->host, ssl.get(), std::chrono::steady_clock::now());
    }
    return ssl;
}

bool http_client_tls_set_up(const char *ca_file)
{
    LOG_TRACE("ca cert file location: %s", ca_file != nullptr ? ca_file : "");
    loaded_context loaded = take_context(ca_file);
    SSL_CTX *const context = loaded.context.get();
    if (context == nullptr) {
        LOG_REASON(LOG_LEVEL_WARN, "SSL_CTX_load_verify_locations");
        LOG_REASON(LOG_LEVEL_WARN, "SSL ERROR: %s", openssl_error_text(loaded.error).c_str());
        return false;
    }
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_max_send_fragment(context, sent_record);
    int rc = static_cast<int>(SSL_CTX_set1_groups_list(context, groups));
    REQUIRE_CALL_BY(set_up, rc == 1, "SSL_CTX_set1_groups_list(context, groups)", rc);
    rc = SSL_CTX_set_cipher_list(context, tls12_ciphers);
    REQUIRE_CALL_BY(set_up, rc == 1, "SSL_CTX_set_cipher_list(context, tls12_ciphers)", rc);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    const int index = peer_index();
    REQUIRE_CALL_BY(set_up, index >= 0, "SSL_get_ex_new_index(0, \"http_client_ctx\")", index);
    SSL_CTX_set_cert_verify_callback(context, verify_callback, nullptr);
    keep_sessions_of(context);
    http_client_sessions_forget(); // other authorities may have vouched for them
    state.default_context = std::move(loaded.context);
    LOG_TRACE("https setup correct");
    return true;
}

unsigned long http_client_tls_try(const char *ca_file)
{
    const loaded_context loaded = load_context(ca_file);
    return loaded.context != nullptr ? 0 : loaded.error;
}

void http_client_tls_prepare(const char *ca_file)
{
    state.prepared = load_context(ca_file);
}

void http_client_tls_forget()
{
    http_client_sessions_forget();
    state.default_context.reset();
}
