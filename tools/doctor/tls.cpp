#include "tools/doctor/tls.h"

#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace {

constexpr std::size_t answer_max = 65536;

/// What the handshake failed for.
std::string reason_of(const SSL *tls)
{
    const long verdict = SSL_get_verify_result(tls);
    if (verdict != X509_V_OK) {
        return X509_verify_cert_error_string(verdict);
    }
    const char *const reason = ERR_reason_error_string(ERR_peek_last_error());
    return reason != nullptr ? reason : "it ended the connection";
}

} // namespace

doctor_tls::doctor_tls(ssl_ptr tls, std::chrono::milliseconds limit)
    : tls_{std::move(tls)}, end_{std::chrono::steady_clock::now() + limit}
{
}

bool doctor_tls::fail(const std::string &why)
{
    problem_ = why;
    return false;
}

int doctor_tls::milliseconds_left() const
{
    using std::chrono::milliseconds;
    const auto left =
        std::chrono::ceil<milliseconds>(end_ - std::chrono::steady_clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 60 * 1000));
}

bool doctor_tls::wait_for(short events)
{
    while (true) {
        pollfd wanted{socket_.get(), events, 0};
        const int left = milliseconds_left();
        const int count = left == 0 ? 0 : poll(&wanted, 1, left);
        if (count > 0) {
            return true;
        }
        if (count == 0 || errno != EINTR) {
            return fail("it did not answer in time");
        }
    }
}

bool doctor_tls::connect_socket(const sockaddr *address, socklen_t length)
{
    socket_.reset(::socket(address->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket_) {
        return fail(std::strerror(errno));
    }
    if (::connect(socket_.get(), address, length) == 0) {
        return true;
    }
    if (errno != EINPROGRESS) {
        return fail(std::strerror(errno));
    }
    int error = 0;
    socklen_t size = sizeof error;
    if (!wait_for(POLLOUT) || getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 ||
        error == 0) {
        return problem_.empty();
    }
    return fail(std::strerror(error));
}

/// True when a call shall be made again.
bool doctor_tls::goes_on(int result)
{
    switch (SSL_get_error(tls_.get(), result)) {
    case SSL_ERROR_WANT_READ:
        return wait_for(POLLIN);
    case SSL_ERROR_WANT_WRITE:
        return wait_for(POLLOUT);
    default:
        return fail(reason_of(tls_.get()));
    }
}

bool doctor_tls::connect(const sockaddr *address, socklen_t length)
{
    if (!connect_socket(address, length) || SSL_set_fd(tls_.get(), socket_.get()) != 1) {
        return false;
    }
    ERR_clear_error();
    int result = 0;
    while ((result = SSL_connect(tls_.get())) != 1) {
        if (!goes_on(result)) {
            return false;
        }
    }
    return true;
}

std::string doctor_tls::exchange(const std::string &sent)
{
    int result = 0;
    while ((result = SSL_write(tls_.get(), sent.data(), static_cast<int>(sent.size()))) <= 0) {
        if (!goes_on(result)) {
            return "";
        }
    }
    std::string answer;
    std::array<char, 4096> piece{};
    while (answer.size() < answer_max) {
        result = SSL_read(tls_.get(), piece.data(), static_cast<int>(piece.size()));
        if (result > 0) {
            answer.append(piece.data(), static_cast<std::size_t>(result));
        } else if (!goes_on(result)) {
            break;
        }
    }
    return answer;
}

x509_ptr doctor_tls::certificate() const
{
    return x509_ptr{SSL_get_peer_certificate(tls_.get())};
}

x509_ptr doctor_tls::last_certificate() const
{
    const STACK_OF(X509) *const chain = SSL_get_peer_cert_chain(tls_.get());
    const int count = chain == nullptr ? 0 : sk_X509_num(chain);
    X509 *const last = count == 0 ? nullptr : sk_X509_value(chain, count - 1);
    return last != nullptr && X509_up_ref(last) == 1 ? x509_ptr{last} : nullptr;
}

bool doctor_tls::is_unproved() const
{
    return SSL_get_verify_result(tls_.get()) != X509_V_OK;
}
