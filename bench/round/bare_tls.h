#pragma once

#include <array>
#include <string>
#include <string_view>

#include "handles/fd.h"
#include "handles/openssl.h"

/// TLS connections by OpenSSL and blocking sockets, with as few system calls as there can be: one for each
/// packet. Failure ends the program.

/// Says on standard error what cannot be done, and ends with status 1.
[[noreturn]] void round_floor_fail(const char *what);
inline void round_floor_require(bool done, const char *what)
{
    if (!done) {
        round_floor_fail(what);
    }
}

/// A server's context with certificate and key from files, and the settings of the daemon.
[[nodiscard]] ssl_ctx_ptr bare_tls_server(const std::string &certificate, const std::string &key);
/// A client's context that trusts what is in the file, with the settings of the daemon.
[[nodiscard]] ssl_ctx_ptr bare_tls_client(const std::string &authorities);

/// Bytes between OpenSSL and the kernel. Connections that follow one another use the same.
struct bare_tls_wire {
    bare_tls_wire();
    bio_ptr received, waiting; // the second one's bytes wait to be sent
    std::array<char, 4096> packet{};
    std::array<char, 4096> text{};
};

/// A connection. What ends a handshake waits for the first `write`: both go in one packet.
class bare_tls {
  public:
    bare_tls(bare_tls_wire &wire, SSL_CTX *context, unique_fd socket);

    void accept();
    /// The server must prove that it is `host`.
    void connect(std::string host);
    void write(std::string_view text);
    /// What one record carries; empty when the other side has closed.
    [[nodiscard]] std::string_view read();
    /// Tells the other side that nothing follows.
    void say_end();

  private:
    void shake_hands();
    void send(int flags = 0);
    [[nodiscard]] bool receive();

    bare_tls_wire &wire_;
    unique_fd socket_;
    ssl_ptr tls_;
};
