#include "http/stream.h"

#include <openssl/err.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "logger/fatal.h"
#include "malloc/tls_rooms.h"

namespace {

constexpr char log_category[] = "http_client";

constexpr int records_in_a_turn = 32;
constexpr std::size_t bytes_in_a_turn = std::size_t{64} * 1024;
constexpr int records_without_data_max = 32;
constexpr std::size_t written_at_once = std::size_t{16} * 1024;

struct module_state {
    bio_method_ptr counted_records;
};
module_state state;

bool is_for_later(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

/// How much may be received now; 0: nothing more in this turn. OpenSSL asks for the head of a record
/// and then for its body, never beyond: what it has not asked for stays in the socket and keeps that
/// readable.
std::size_t allowed(http_client_intake *intake)
{
    const bool begins_record = intake->head_read == 0;
    intake->flooded = begins_record && intake->without_data > records_without_data_max;
    if (intake->flooded || intake->bytes_left == 0 ||
        (begins_record && intake->records_left == 0)) {
        return 0;
    }
    const std::size_t part = intake->head_read < intake->head.size()
                                 ? intake->head.size() - intake->head_read
                                 : intake->body_left;
    return std::min(part, intake->bytes_left);
}

void take(http_client_intake *intake, const char *bytes, std::size_t size)
{
    intake->heard = true;
    intake->bytes_left -= size;
    if (intake->head_read == 0) {
        --intake->records_left;
        ++intake->without_data; // until it turns out to carry some
    }
    if (intake->head_read == intake->head.size()) {
        intake->body_left -= size;
    } else {
        std::memcpy(intake->head.data() + intake->head_read, bytes, size);
        intake->head_read += size;
        intake->body_left = intake->head[3] * std::size_t{256} + intake->head[4];
    }
    if (intake->head_read == intake->head.size() && intake->body_left == 0) {
        intake->head_read = 0; // the next one
    }
}

int on_bio_read(BIO *bio, char *to, int size) noexcept
{
    auto *const intake = static_cast<http_client_intake *>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const std::size_t most = std::min(allowed(intake), static_cast<std::size_t>(size));
    if (most == 0) {
        errno = intake->flooded ? ECONNABORTED : EAGAIN;
    }
    const ssize_t received = most == 0 ? -1 : recv(intake->socket, to, most, 0);
    if (received > 0) {
        tls_room_reached(to, static_cast<std::size_t>(received));
        take(intake, to, static_cast<std::size_t>(received));
    } else if (received < 0 && is_for_later(errno)) {
        BIO_set_retry_read(bio);
    }
    intake->ended = received == 0;
    return static_cast<int>(received);
}

/// Nothing answers the end of our side of a TLS 1.3 handshake, and whoever connects has a request: the kernel
/// sends both in one packet. If nothing follows, it sends the end alone after 200 ms.
bool ends_handshake(const SSL *tls)
{
    return SSL_get_state(tls) == TLS_ST_CW_FINISHED && SSL_version(tls) == TLS1_3_VERSION;
}

int on_bio_write(BIO *bio, const char *from, int size) noexcept
{
    const auto *const intake = static_cast<const http_client_intake *>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const bool more_follows = intake->says_goodbye || ends_handshake(intake->tls);
    const int flags = MSG_NOSIGNAL | MSG_DONTWAIT | (more_follows ? MSG_MORE : 0);
    const ssize_t sent = send(intake->socket, from, static_cast<std::size_t>(size), flags);
    if (sent < 0 && is_for_later(errno)) {
        BIO_set_retry_write(bio);
    }
    return static_cast<int>(sent);
}

long on_bio_control(BIO *bio, int command, long, void *) noexcept
{
    const auto *const intake = static_cast<const http_client_intake *>(BIO_get_data(bio));
    return command == BIO_CTRL_FLUSH || (command == BIO_CTRL_EOF && intake->ended) ? 1 : 0;
}

BIO_METHOD *counted_records()
{
    if (state.counted_records == nullptr) {
        state.counted_records.reset(
            BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "counted TLS records"));
        REQUIRE_MEMORY(state.counted_records, "counted_records");
        BIO_meth_set_read(state.counted_records.get(), on_bio_read);
        BIO_meth_set_write(state.counted_records.get(), on_bio_write);
        BIO_meth_set_ctrl(state.counted_records.get(), on_bio_control);
    }
    return state.counted_records.get();
}

} // namespace

http_client_stream::http_client_stream(unique_fd socket, ssl_ptr tls)
    : socket_{std::move(socket)}, tls_{std::move(tls)}
{
    intake_.socket = socket_.get();
    if (tls_ == nullptr) {
        return;
    }
    intake_.tls = tls_.get();
    bio_ptr records{BIO_new(counted_records())};
    REQUIRE_MEMORY(records, "records");
    BIO_set_data(records.get(), &intake_);
    BIO_set_init(records.get(), 1);
    SSL_set_bio(tls_.get(), records.get(), records.get());
    (void)records.release(); // the TLS object owns it now, once for both directions
    SSL_set_connect_state(tls_.get());
}

http_client_stream::~http_client_stream()
{
    // A goodbye, unless a failure has made it impossible. The socket is closed next, and the kernel sends
    // both in one packet. If the server has said something that nobody read, it sends a reset instead.
    if (tls_ != nullptr && tls_errors_.empty() && socket_error_ == 0 &&
        SSL_is_init_finished(tls_.get()) != 0) {
        intake_.says_goodbye = true;
        SSL_shutdown(tls_.get());
        ERR_clear_error();
    }
}

void http_client_stream::begin_turn()
{
    intake_.records_left = records_in_a_turn;
    intake_.bytes_left = bytes_in_a_turn;
}

http_client_io http_client_stream::tls_outcome(int result)
{
    const int socket_error = errno;
    switch (SSL_get_error(tls_.get(), result)) {
    case SSL_ERROR_WANT_READ:
        return http_client_io::wants_to_read;
    case SSL_ERROR_WANT_WRITE:
        return http_client_io::wants_to_write;
    case SSL_ERROR_ZERO_RETURN:
        return http_client_io::ended;
    default:
        break;
    }
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
        tls_errors_.push_back(error);
    }
    socket_error_ = intake_.ended ? ECONNRESET : socket_error;
    return http_client_io::failed;
}

http_client_io http_client_stream::plain_outcome(ssize_t result, http_client_io wish)
{
    if (result < 0 && is_for_later(errno)) {
        return wish;
    }
    socket_error_ = errno;
    return result == 0 ? http_client_io::ended : http_client_io::failed;
}

http_client_io http_client_stream::shake_hands()
{
    if (tls_ == nullptr) {
        return http_client_io::done;
    }
    ERR_clear_error();
    errno = 0;
    const int rc = SSL_do_handshake(tls_.get());
    if (rc != 1) {
        return tls_outcome(rc);
    }
    intake_.without_data = 0;
    return http_client_io::done;
}

http_client_io http_client_stream::write(std::string_view bytes, std::size_t *count)
{
    const std::size_t most = std::min(bytes.size(), written_at_once);
    if (tls_ == nullptr) {
        const ssize_t sent = send(socket_.get(), bytes.data(), most, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent <= 0) {
            return plain_outcome(sent, http_client_io::wants_to_write);
        }
        *count = static_cast<std::size_t>(sent);
        return http_client_io::done;
    }
    ERR_clear_error();
    errno = 0;
    const int sent = SSL_write(tls_.get(), bytes.data(), static_cast<int>(most));
    if (sent <= 0) {
        return tls_outcome(sent);
    }
    *count = static_cast<std::size_t>(sent);
    return http_client_io::done;
}

http_client_io http_client_stream::read(std::span<char> to, std::size_t *count)
{
    if (tls_ == nullptr) {
        const std::size_t most = std::min(to.size(), intake_.bytes_left);
        if (most == 0) {
            return http_client_io::wants_to_read;
        }
        const ssize_t received = recv(socket_.get(), to.data(), most, MSG_DONTWAIT);
        if (received <= 0) {
            return plain_outcome(received, http_client_io::wants_to_read);
        }
        intake_.bytes_left -= static_cast<std::size_t>(received);
        *count = static_cast<std::size_t>(received);
        return http_client_io::done;
    }
    ERR_clear_error();
    errno = 0;
    const int received = SSL_read(tls_.get(), to.data(), static_cast<int>(to.size()));
    if (received <= 0) {
        return tls_outcome(received);
    }
    intake_.without_data = 0;
    *count = static_cast<std::size_t>(received);
    return http_client_io::done;
}
