#include "velm_http_server_tls.h"

#include <event2/buffer.h>
#include <event2/bufferevent_struct.h>
#include <event2/event.h>
#include <openssl/bio.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "handles/openssl.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "velm_http_server";

/// How long a phone may resume its TLS session. The ticket holds it: nothing is kept here.
constexpr long tls_session_seconds = 2L * 60 * 60;

/// OpenSSL's own lists in another order: AES-128 first, whose hash is SHA-256. Keys come from hashes,
/// and a processor takes half as long for those as for SHA-384.
constexpr char tls13_ciphers[] =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";
constexpr char tls12_ciphers[] = "ECDHE+AES128+AESGCM:ALL:!COMPLEMENTOFDEFAULT:!eNULL";

constexpr std::size_t record_head_size = 5;
constexpr std::size_t longest_record = record_head_size + 16384 + 2048;

struct module_state {
    bio_method_ptr whole_records;
    std::array<char, longest_record> scratch; // only pages that bytes reached are resident
};
module_state state;

std::string_view unread(const http_tls_stream *stream)
{
    return std::string_view{stream->held}.substr(stream->taken);
}

/// The size of the record that the bytes begin with; 0 while it has not come whole. What is no record
/// is OpenSSL's to refuse, all of it.
std::size_t whole_record(std::string_view bytes)
{
    if (bytes.size() < record_head_size) {
        return 0;
    }
    const auto byte = [bytes](std::size_t at) { return static_cast<std::uint8_t>(bytes[at]); };
    const bool is_record =
        byte(0) >= SSL3_RT_CHANGE_CIPHER_SPEC && byte(0) <= SSL3_RT_APPLICATION_DATA;
    const std::size_t size = record_head_size + byte(3) * 256U + byte(4);
    if (!is_record || size > longest_record) {
        return bytes.size();
    }
    return bytes.size() >= size ? size : 0;
}

int would_block(BIO *bio)
{
    BIO_set_flags(bio, BIO_FLAGS_READ | BIO_FLAGS_SHOULD_RETRY);
    return -1;
}

/// More than 0 when something has come. What is held stays below the longest record.
int receive(BIO *bio, http_tls_stream *stream)
{
    stream->shakes_hands = stream->shakes_hands && SSL_is_init_finished(stream->tls) == 0;
    if (stream->shakes_hands && stream->received >= stream->handshake_bytes) {
        LOG_WARN("%s - too much before the end of the handshake", __func__);
        errno = ECONNABORTED; // the library takes what it finds here for the reason
        return 0;             // as if the client had ended
    }
    if (stream->shakes_hands && std::exchange(stream->drained, false)) {
        return would_block(bio); // asked again in the turn that has read all
    }
    const std::size_t room = state.scratch.size() - unread(stream).size();
    const ssize_t size = recv(stream->socket, state.scratch.data(), room, 0);
    if (size <= 0) {
        stream->ended = size == 0;
        return size < 0 && (errno == EAGAIN || errno == EINTR) ? would_block(bio)
                                                               : static_cast<int>(size);
    }
    stream->drained = static_cast<std::size_t>(size) < room;
    stream->received += static_cast<std::size_t>(size);
    stream->held.erase(0, std::exchange(stream->taken, 0));
    stream->held.append(state.scratch.data(), static_cast<std::size_t>(size));
    if (whole_record(stream->held) != stream->held.size()) {
        stream->keeps_some();
    }
    return 1;
}

/// OpenSSL reads.
int on_bio_read(BIO *bio, char *to, int size) noexcept
{
    auto *const stream = static_cast<http_tls_stream *>(BIO_get_data(bio));
    BIO_clear_flags(bio, BIO_FLAGS_RWS | BIO_FLAGS_SHOULD_RETRY);
    if (stream == nullptr || size <= 0) {
        return 0;
    }
    while (stream->open == 0 && (stream->open = whole_record(unread(stream))) == 0) {
        const int result = receive(bio, stream);
        if (result <= 0) {
            return result;
        }
    }
    const std::size_t given = std::min(stream->open, static_cast<std::size_t>(size));
    std::memcpy(to, unread(stream).data(), given);
    stream->open -= given;
    stream->taken += given;
    if (stream->taken == stream->held.size()) {
        std::string{}.swap(stream->held); // an assignment would keep the room
        stream->taken = 0;
    }
    return static_cast<int>(given);
}

long on_bio_control(BIO *bio, int command, long, void *) noexcept
{
    const auto *const stream = static_cast<const http_tls_stream *>(BIO_get_data(bio));
    return command == BIO_CTRL_EOF && (stream == nullptr || stream->ended) ? 1 : 0;
}

bio_method_ptr make_method()
{
    bio_method_ptr method{
        BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "whole TLS records")};
    REQUIRE_MEMORY(method, "method");
    BIO_meth_set_read(method.get(), on_bio_read);
    BIO_meth_set_ctrl(method.get(), on_bio_control);
    return method;
}

/// libevent asks to be told when the socket can be written to, though nothing waits to be written;
/// it always can, so this would wake the loop for nothing.
void do_not_wait_to_write(bufferevent *bev)
{
    if (evbuffer_get_length(bufferevent_get_output(bev)) == 0) {
        event_del(&bev->ev_write);
    }
}

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
    // 9 kB less for an idle connection; and what is sent stands in the certificate file, so that no
    // handshake need look for more.
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_NO_AUTO_CHAIN);
    SSL_CTX_set_timeout(context, tls_session_seconds);
    SSL_CTX_set_num_tickets(context, 1); // the second costs a handshake 8 % and is hardly ever used
}

void http_tls_begin(http_tls_stream *stream, bufferevent *bev)
{
    if (state.whole_records == nullptr) {
        state.whole_records = make_method();
    }
    bio_ptr records{BIO_new(state.whole_records.get())};
    REQUIRE_MEMORY(records, "records");
    BIO_set_data(records.get(), stream);
    BIO_set_init(records.get(), 1);
    SSL_set0_rbio(stream->tls, records.release());
    do_not_wait_to_write(bev); // a client that wants to be served speaks first
}

void http_tls_end(http_tls_stream *stream)
{
    if (stream->tls != nullptr) {
        BIO_set_data(SSL_get_rbio(stream->tls), nullptr);
    }
}

void http_tls_connected(bufferevent *bev)
{
    do_not_wait_to_write(bev);
}

bool http_tls_has_more(const http_tls_stream *stream)
{
    return stream->open != 0 || whole_record(unread(stream)) != 0;
}

void http_tls_read(bufferevent *bev)
{
    event_active(&bev->ev_read, EV_READ, 1);
}

void http_tls_end_quietly(const http_tls_stream *stream)
{
    if (stream->tls != nullptr && (SSL_get_shutdown(stream->tls) & SSL_RECEIVED_SHUTDOWN) != 0) {
        SSL_set_quiet_shutdown(stream->tls, 1);
    }
}

std::size_t http_tls_size(const http_tls_stream *stream)
{
    return stream->held.capacity();
}
