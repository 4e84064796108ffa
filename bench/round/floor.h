#pragma once

#include <openssl/ssl.h>

#include <functional>
#include <string>

#include "handles/fd.h"
#include "handles/openssl.h"

/// The pieces of a round that no program can leave out, each done by the libraries or the kernel alone.

/// Says why on standard error, and ends with status 1.
[[noreturn]] void round_floor_fail(const std::string &why);

/// Processor time of this process for one call, kernel included.
[[nodiscard]] double round_floor_cpu_us(const std::function<void()> &work);

/// Work of the daemon, and its two proofs by themselves. They only call it: callgrind counts what runs in
/// functions of these names (`velm_bench/instructions.py`).
extern "C" {
void round_floor_counted(const std::function<void()> &work);
void round_floor_counted_check(const std::function<void()> &work);
void round_floor_counted_token(const std::function<void()> &work);
}

/// Which end of a connection is the daemon's.
enum class round_tls_daemon { server, client };

/// Both ends of a TLS connection in memory. A connection is a handshake, `exchanges` requests with their
/// answers, and its end.
class round_tls {
  public:
    /// `client` has to check the server's chain and that it is for `host`.
    round_tls(ssl_ctx_ptr server, ssl_ctx_ptr client, std::string host, int exchanges,
              round_tls_daemon daemon);

    struct times {
        double server_us = 0;
        double client_us = 0;
    };
    /// What a connection costs each of the ends.
    times connect();

  private:
    ssl_ctx_ptr server_, client_;
    std::string host_;
    int exchanges_;
    round_tls_daemon daemon_;
};

/// A server's context with certificate and key from files, as the daemon's or, with `is_cloud`, as the library
/// has it by itself.
[[nodiscard]] ssl_ctx_ptr round_tls_server(const std::string &certificate, const std::string &key,
                                           bool is_cloud);
/// A client's context that trusts what is in the file.
[[nodiscard]] ssl_ctx_ptr round_tls_client(const std::string &authorities);

/// What is computed between the system calls of a round. Computing there and not beside it matters: a
/// round is rare, so everything is out of the caches again when its turn comes.
struct round_work {
    std::function<void()> push;
    std::function<void()> greet_phone;
    std::function<void()> challenge;
    std::function<void()> location;
};

/// The system calls of a round, by a bare loop with one descriptor at a time: a local client's request, a
/// connection to the cloud, one taken from a phone, the password file read twice, the report. The
/// bytes have the sizes of the real ones, without TLS. A child process is everybody else.
class round_calls {
  public:
    /// The child stays on `peer_core`, this process on `own_core`; -1 leaves them where they are.
    round_calls(std::string password_file, int own_core, int peer_core);
    void run(const round_work &work);

  private:
    void push(const round_work &work);
    void serve_phone(const round_work &work);
    void read_password_file() const;
    void watch(int operation, int fd, unsigned events) const;
    void await() const;

    std::string password_file_;
    unique_fd epoll_, listener_, local_;
    std::uint16_t cloud_port_ = 0;
};
