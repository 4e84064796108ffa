#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "handles/openssl.h"

/// TLS sessions of servers that have proved who they are, the newest one of each host. A handshake that goes
/// on from one needs neither certificates nor signatures (RFC 8446 section 2.2), and agrees on new keys like
/// any other. Only sessions of TLS 1.3 are kept: in TLS 1.2 no new keys would be agreed on.
///
/// A session serves once (RFC 8446 appendix C.4). The server sends the next one before its answer. When a
/// connection fails, that one is forgotten too, so the connection after it begins anew, whatever the reason was.

/// Then the server must show its certificates again.
inline constexpr std::chrono::hours http_client_session_time{48};

/// Hosts. The cloud has three.
inline constexpr std::size_t http_client_sessions_max = 4;

/// Bytes of the ticket and of all certificates that the server has shown, needed or not. A session holds them,
/// and certificates in memory take up to 15 times as much.
inline constexpr std::size_t http_client_session_size_max = std::size_t{16} * 1024;

/// Keeps the session in place of the one before. `resumed`: its handshake went on from an earlier one, so the
/// server has shown nothing, and the time of that one's proof goes on. Another connection's proof does not
/// count for it. True when it was kept and is owned here now.
[[nodiscard]] bool http_client_session_keep(const std::string &host, SSL_SESSION *session,
                                            bool resumed,
                                            std::chrono::steady_clock::time_point now);

/// Lets the handshake that is to come go on from the session of the host, if there is one, its time has not
/// passed, and the certificate that it began with is still valid.
void http_client_session_offer(const std::string &host, SSL *tls,
                               std::chrono::steady_clock::time_point now);

/// Of one host, whose connection has failed.
void http_client_session_forget(const std::string &host);

void http_client_sessions_forget();
