#include "http_server/tls_settings.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <array>
#include <utility>

#include "http_server/log.h"
#include "logger/fatal.h"

namespace {

/// How long a phone may resume its TLS session. The ticket holds it: nothing is kept here.
constexpr long tls_session_seconds = 2L * 60 * 60;

/// OpenSSL's own lists in another order: AES-128 first, whose hash is SHA-256. Keys come from hashes,
/// and a processor takes half as long for those as for SHA-384.
constexpr char tls13_ciphers[] =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";
/// Ephemeral keys and authenticated encryption only: every phone that the apps run on has them.
constexpr char tls12_ciphers[] = "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
                                 "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
                                 "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305";

/// Those that cost a millisecond or less. OpenSSL's own list ends with ffdhe8192: a greeting of 1200
/// bytes, sent again and again, took the processor for 120 ms each time.
constexpr char tls_groups[] = "X25519:P-256:P-384";

using ticket_key = std::array<unsigned char, 80>; // a name, and two keys: OpenSSL's own layout

struct module_state {
    const SSL_CTX *tickets_of = nullptr; // the context whose key was made then
    std::chrono::steady_clock::time_point ticket_key_made;
};
module_state state;

} // namespace

void http_tls_tune(SSL_CTX *context)
{
    // The server chooses, since its processor is the slower one; a client that puts ChaCha20 first has
    // no hardware for AES and gets it.
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE |
                                     SSL_OP_PRIORITIZE_CHACHA);
    int rc = SSL_CTX_set_ciphersuites(context, tls13_ciphers);
    REQUIRE_CALL(rc == 1, "SSL_CTX_set_ciphersuites(context, tls13_ciphers)", rc);
    rc = SSL_CTX_set_cipher_list(context, tls12_ciphers);
    REQUIRE_CALL(rc == 1, "SSL_CTX_set_cipher_list(context, tls12_ciphers)", rc);
    rc = static_cast<int>(SSL_CTX_set1_groups_list(context, tls_groups));
    REQUIRE_CALL(rc == 1, "SSL_CTX_set1_groups_list(context, tls_groups)", rc);
    // 9 kB less for an idle connection; and what is sent stands in the certificate file, so that no
    // handshake need look for more.
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_NO_AUTO_CHAIN);
    rc = static_cast<int>(SSL_CTX_set_max_send_fragment(context, http_tls_sent_record));
    REQUIRE_CALL(rc == 1, "SSL_CTX_set_max_send_fragment(context, http_tls_sent_record)", rc);
    SSL_CTX_set_timeout(context, tls_session_seconds);
    SSL_CTX_set_num_tickets(context, 1); // the second costs a handshake 8 % and is hardly ever used
}

void http_tls_renew_ticket_key(SSL_CTX *context, std::chrono::steady_clock::time_point now)
{
    if (context != std::exchange(state.tickets_of, context)) {
        state.ticket_key_made = now; // the context has made one for itself
        return;
    }
    if (now - state.ticket_key_made < http_tls_ticket_key_time) {
        return;
    }
    ticket_key key{};
    int rc = RAND_bytes(key.data(), static_cast<int>(key.size()));
    REQUIRE_CALL(rc == 1, "RAND_bytes(key, sizeof key)", rc);
    rc = static_cast<int>(SSL_CTX_set_tlsext_ticket_keys(context, key.data(), key.size()));
    OPENSSL_cleanse(key.data(), key.size());
    REQUIRE_CALL(rc == 1, "SSL_CTX_set_tlsext_ticket_keys(context, key, sizeof key)", rc);
    state.ticket_key_made = now;
}
