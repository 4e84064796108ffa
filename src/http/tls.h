#pragma once

#include <string>

#include "handles/openssl.h"

/// TLS towards servers: the default context and the judgement of what a server presents.

/// Whom the handshake must prove the other side to be.
struct http_client_peer {
    std::string host; // without the brackets of an IPv6 literal
    bool skip_server_verification = false;
    bool skip_hostname_verification = false;
    bool operator==(const http_client_peer &) const = default;
};

/// Makes the default context, which verifies servers against the CA file; false, with the reason in the
/// log, when the file cannot be used. The context that was stays in force then.
[[nodiscard]] bool http_client_tls_set_up(const char *ca_file);

/// OpenSSL's error for which the file cannot be used; 0 when it can. Changes nothing.
[[nodiscard]] unsigned long http_client_tls_try(const char *ca_file);

/// Does the slow part of it for this file beforehand, and says nothing.
void http_client_tls_prepare(const char *ca_file);

/// Lets go of the default context; TLS objects that were made of it keep it.
void http_client_tls_forget();

[[nodiscard]] bool http_client_tls_is_set_up();

/// A TLS object of the default context for one connection; null when the host cannot be
/// its server name. `peer` is borrowed for the object's life.
[[nodiscard]] ssl_ptr http_client_tls_new(const http_client_peer *peer);
