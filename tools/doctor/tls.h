#pragma once

#include <netinet/in.h>

#include <chrono>
#include <string>

#include "handles/fd.h"
#include "handles/openssl.h"

/// A TLS connection that looks whether the other side answers. Nothing of it outlasts its deadline.
class doctor_tls {
  public:
    /// The TLS object says whom the other side must prove to be.
    doctor_tls(ssl_ptr tls, std::chrono::milliseconds limit);

    /// Connects and shakes hands. False, and then `problem` says why.
    [[nodiscard]] bool connect(const sockaddr *address, socklen_t length);

    /// Sends the text and gives what is answered, as far as it comes in time: at most 64 KiB.
    [[nodiscard]] std::string exchange(const std::string &sent);

    /// The other side's, or null.
    [[nodiscard]] x509_ptr certificate() const;

    /// The last of the certificates that it showed, or null.
    [[nodiscard]] x509_ptr last_certificate() const;

    /// It is not what it must be: its certificate did not verify.
    [[nodiscard]] bool is_unproved() const;

    [[nodiscard]] const std::string &problem() const
    {
        return problem_;
    }

  private:
    [[nodiscard]] int milliseconds_left() const;
    [[nodiscard]] bool connect_socket(const sockaddr *address, socklen_t length);
    [[nodiscard]] bool wait_for(short events);
    [[nodiscard]] bool goes_on(int result);
    [[nodiscard]] bool fail(const std::string &why);

    unique_fd socket_; // outlives the TLS object, which is declared behind it
    ssl_ptr tls_;
    std::chrono::steady_clock::time_point end_;
    std::string problem_;
};
