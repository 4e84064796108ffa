#pragma once

#include <openssl/ssl.h>

#include <chrono>

/// What the HTTPS server sets in OpenSSL. Internal to the server.

/// The longest record that is sent: OpenSSL keeps one while a client does not read, and nearly every
/// reply is a tenth of it.
inline constexpr long http_tls_sent_record = 4096;

/// How long one key seals the tickets of TLS sessions: who takes the key out of the device can read
/// what was said in that time, and no more.
inline constexpr std::chrono::hours http_tls_ticket_key_time{12};

/// What libevhtp's settings record cannot say.
void http_tls_tune(SSL_CTX *context);

/// Makes a new key for tickets when the one in use has had its time. Called for each connection, so
/// that nothing wakes the loop for it; a ticket of the old key means a whole handshake.
void http_tls_renew_ticket_key(SSL_CTX *context, std::chrono::steady_clock::time_point now);
