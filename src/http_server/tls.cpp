#include "http_server/tls.h"

#include <event2/buffer.h>
#include <event2/bufferevent_struct.h>
#include <event2/event.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "handles/openssl.h"
#include "http_server/log.h"
#include "http_server/refusals.h"
#include "logger/fatal.h"
#include "malloc/tls_rooms.h"
#include "story/story.h"

namespace {

constexpr std::size_t record_head_size = 5;
constexpr std::size_t longest_record = record_head_size + 16384 + 2048;

struct module_state {
    bio_method_ptr whole_records;
    http_tls_stream *with_spare = nullptr; // which was read last, and kept the rooms made for that
    std::array<char, longest_record> scratch; // only pages that bytes reached are resident
};
module_state state;

std::string_view unread(const http_tls_stream *stream)
{
    return std::string_view{stream->held}.substr(stream->taken);
}

/// The size of the record that the bytes begin with; 0 while that is not known. What is no record is
/// OpenSSL's to refuse, all of it.
std::size_t record_size(std::string_view bytes)
{
    if (bytes.size() < record_head_size) {
        return 0;
    }
    const auto byte = [bytes](std::size_t at) { return static_cast<std::uint8_t>(bytes[at]); };
    const bool is_record =
        byte(0) >= SSL3_RT_CHANGE_CIPHER_SPEC && byte(0) <= SSL3_RT_APPLICATION_DATA;
    const std::size_t size = record_head_size + byte(3) * 256U + byte(4);
    return is_record && size <= longest_record ? size : bytes.size();
}

/// The same, but 0 as well while it has not come whole.
std::size_t whole_record(std::string_view bytes)
{
    const std::size_t size = record_size(bytes);
    return bytes.size() >= size ? size : 0;
}

/// How much is read at once: what is missing of a record, or a few of the usual ones. What is not read
/// yet waits in the kernel, and takes no memory here.
std::size_t room_for(std::string_view bytes)
{
    constexpr std::size_t usual = 4096;
    return std::max(std::max(record_size(bytes), bytes.size()) - bytes.size(), usual);
}

int would_block(BIO *bio)
{
    BIO_set_flags(bio, BIO_FLAGS_READ | BIO_FLAGS_SHOULD_RETRY);
    return -1;
}

/// As if the client had ended. The library takes what it finds in errno for the reason.
int give_up()
{
    errno = ECONNABORTED;
    return 0;
}

/// The client has ended without a goodbye. OpenSSL 3 would send an alert and 1.1.1 a goodbye, but nearly
/// always the client has closed its socket, and its system would answer with a reset. OpenSSL sends no
/// alert after its own goodbye: so it is told that it has sent one.
void say_nothing_more(SSL *tls)
{
    SSL_set_shutdown(tls, SSL_get_shutdown(tls) | SSL_SENT_SHUTDOWN);
    SSL_set_quiet_shutdown(tls, 1); // libevhtp takes the former back
}

/// More than 0 when something has come. What is held stays below the longest record.
int receive(BIO *bio, http_tls_stream *stream)
{
    if (stream->shakes_hands && stream->received >= stream->handshake_bytes) {
        story_visit_came({.address = stream->address,
                          .check = story_tls,
                          .why = "too much before the end of the handshake"});
        if (http_refusals_tell(stream->address)) {
            LOG_WARN("%s - too much before the end of the handshake: %s", __func__,
                     http_refusals_text(stream->address));
        }
        return give_up();
    }
    if (stream->shakes_hands && std::exchange(stream->drained, false)) {
        return would_block(bio); // asked again in the turn that has read all
    }
    const std::size_t room = room_for(unread(stream));
    const ssize_t size = recv(stream->socket, state.scratch.data(), room, 0);
    if (size <= 0) {
        stream->ended = size == 0;
        if (stream->ended) {
            say_nothing_more(stream->tls);
        }
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

/// Of the stream that was read last and made rooms that its data do not need.
void give_back_spare()
{
    const http_tls_stream *const stream = std::exchange(state.with_spare, nullptr);
    if (stream == nullptr) {
        return;
    }
    if (SSL_has_pending(stream->tls) == 0) {
        SSL_free_buffers(stream->tls); // unless something waits to be written
    }
    evbuffer *const input = bufferevent_get_input(stream->bev);
    if (evbuffer_get_length(input) == 0) {
        evbuffer_add(input, "", 1); // the room goes with the last byte in it
        evbuffer_drain(input, 1);
    }
}

void note_spare(http_tls_stream *stream)
{
    if (state.with_spare == nullptr) {
        state.with_spare = stream;
        stream->keeps_some();
    }
}

/// OpenSSL wants the next record: more than 0 when it may have it.
int open_record(BIO *bio, http_tls_stream *stream)
{
    stream->shakes_hands = stream->shakes_hands && SSL_is_init_finished(stream->tls) == 0;
    if (stream->silent_records > http_tls_max_silent_records) {
        story_visit_came({.address = stream->address,
                          .check = story_tls,
                          .why = "too many TLS records without data"});
        if (http_refusals_tell(stream->address)) {
            LOG_WARN("%s - too many TLS records without data: %s", __func__,
                     http_refusals_text(stream->address));
        }
        return give_up();
    }
    if (http_tls_turn_is_over(stream)) {
        stream->wants_turn(stream->argument);
        return would_block(bio);
    }
    while ((stream->open = whole_record(unread(stream))) == 0) {
        const int result = receive(bio, stream);
        if (result <= 0) {
            return result;
        }
    }
    ++stream->turn_records;
    stream->turn_bytes += stream->open;
    if (!stream->shakes_hands) {
        ++stream->silent_records; // until it turns out to bring data
    }
    if (stream->silent_records > 1) {
        note_spare(stream); // new keys among them: OpenSSL makes a room for an answer
    }
    return 1;
}

/// Reading is over for now. If there are data, the connection is going to take them.
void end_reading(http_tls_stream *stream)
{
    if (evbuffer_get_length(bufferevent_get_input(stream->bev)) == 0) {
        note_spare(stream);
    }
}

/// OpenSSL reads.
int on_bio_read(BIO *bio, char *to, int size) noexcept
{
    auto *const stream = static_cast<http_tls_stream *>(BIO_get_data(bio));
    BIO_clear_flags(bio, BIO_FLAGS_RWS | BIO_FLAGS_SHOULD_RETRY);
    if (stream == nullptr || size <= 0) {
        return 0;
    }
    if (state.with_spare != stream) {
        give_back_spare();
    }
    if (stream->open == 0) {
        const int result = open_record(bio, stream);
        if (result <= 0) {
            tls_room_reached(to, 0); // where only records are put, and none has come
            end_reading(stream);
            return result;
        }
    }
    const std::size_t given = std::min(stream->open, static_cast<std::size_t>(size));
    std::memcpy(to, unread(stream).data(), given);
    tls_room_reached(to, given);
    stream->open -= given;
    stream->taken += given;
    if (stream->taken == stream->held.size()) {
        std::string{}.swap(stream->held); // an assignment would keep the room
        stream->taken = 0;
    }
    return static_cast<int>(given);
}

/// Known for as long as the BIO: libevent closes the socket after the stream has gone.
int socket_of(BIO *bio)
{
    return static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_app_data(bio)));
}

/// Without MSG_EOR the kernel appends to what it has not sent yet, up to 64 KiB, and looks at the limit
/// of the send buffer only before it begins a new piece.
constexpr int send_flags = MSG_NOSIGNAL | MSG_EOR;

/// Nobody waits for a ticket of TLS 1.3: the kernel sends it with the first answer, or alone after 200 ms. In
/// TLS 1.2 it is a part of the handshake.
bool is_only_ticket(const SSL *tls)
{
    return SSL_get_state(tls) == TLS_ST_SW_SESSION_TICKET && SSL_version(tls) == TLS1_3_VERSION;
}

/// OpenSSL writes.
int on_bio_write(BIO *bio, const char *from, int size) noexcept
{
    auto *const stream = static_cast<http_tls_stream *>(BIO_get_data(bio));
    BIO_clear_flags(bio, BIO_FLAGS_RWS | BIO_FLAGS_SHOULD_RETRY);
    const int flags =
        stream != nullptr && is_only_ticket(stream->tls) ? MSG_NOSIGNAL | MSG_MORE : send_flags;
    const ssize_t sent = send(socket_of(bio), from, static_cast<std::size_t>(size), flags);
    const bool waits = sent < 0 && (errno == EAGAIN || errno == EINTR);
    if (waits) {
        BIO_set_flags(bio, BIO_FLAGS_WRITE | BIO_FLAGS_SHOULD_RETRY);
    }
    if (stream != nullptr) { // null: only the goodbye is sent
        if (waits && !stream->blocked) {
            stream->keeps_some();
        }
        stream->blocked = waits;
    }
    return static_cast<int>(sent);
}

long on_bio_control(BIO *bio, int command, long, void *) noexcept
{
    const auto *const stream = static_cast<const http_tls_stream *>(BIO_get_data(bio));
    switch (command) {
    case BIO_C_GET_FD:
        return socket_of(bio);
    case BIO_CTRL_FLUSH:
        return 1; // nothing is kept here
    case BIO_CTRL_EOF:
        return stream == nullptr || stream->ended ? 1 : 0;
    default:
        return 0;
    }
}

bio_method_ptr make_method()
{
    bio_method_ptr method{
        BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "whole TLS records")};
    REQUIRE_MEMORY(method, "method");
    BIO_meth_set_read(method.get(), on_bio_read);
    BIO_meth_set_write(method.get(), on_bio_write);
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

void http_tls_begin(http_tls_stream *stream, bufferevent *bev)
{
    if (state.whole_records == nullptr) {
        state.whole_records = make_method();
    }
    stream->bev = bev;
    bufferevent_set_max_single_read(bev, http_tls_read_room - 64); // the room has a head
    bio_ptr records{BIO_new(state.whole_records.get())};
    REQUIRE_MEMORY(records, "records");
    BIO_set_data(records.get(), stream);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the place holds a pointer, and the number is all of it
    void *const socket = reinterpret_cast<void *>(static_cast<std::intptr_t>(stream->socket));
    BIO_set_app_data(records.get(), socket);
    BIO_set_init(records.get(), 1);
    BIO_up_ref(records.get());
    SSL_set0_wbio(stream->tls, records.get());
    SSL_set0_rbio(stream->tls, records.release());
    do_not_wait_to_write(bev); // a client that wants to be served speaks first
}

void http_tls_end(http_tls_stream *stream)
{
    if (state.with_spare == stream) {
        state.with_spare = nullptr;
    }
    if (stream->tls != nullptr) {
        BIO_set_data(SSL_get_rbio(stream->tls), nullptr);
    }
}

void http_tls_connected(bufferevent *bev)
{
    do_not_wait_to_write(bev);
}

void http_tls_brought_data(http_tls_stream *stream)
{
    stream->silent_records = 0;
}

bool http_tls_turn_is_over(const http_tls_stream *stream)
{
    return stream->turn_records >= http_tls_turn_records ||
           stream->turn_bytes >= http_tls_turn_bytes;
}

void http_tls_next_turn(http_tls_stream *stream)
{
    stream->turn_records = 0;
    stream->turn_bytes = 0;
}

bool http_tls_has_more(const http_tls_stream *stream)
{
    return stream->open != 0 || whole_record(unread(stream)) != 0;
}

void http_tls_read(bufferevent *bev)
{
    // Libevent does not add an event that is active. One that was taken off the loop and made active here
    // would stay off it when reading is enabled later in this turn, and nothing would be read any more.
    if (event_pending(&bev->ev_read, EV_READ, nullptr) != 0) {
        event_active(&bev->ev_read, EV_READ, 1);
    }
}

void http_tls_say_last(SSL *tls, int socket, std::string_view text)
{
    SSL_write(tls, text.data(), static_cast<int>(text.size()));
    SSL_shutdown(tls);
    ERR_clear_error(); // a client that cannot be told is closed without it
    shutdown(socket, SHUT_WR);
}

void http_tls_end_quietly(const http_tls_stream *stream)
{
    if (stream->tls != nullptr && (SSL_get_shutdown(stream->tls) & SSL_RECEIVED_SHUTDOWN) != 0) {
        SSL_set_quiet_shutdown(stream->tls, 1);
    }
}

void http_tls_give_back()
{
    give_back_spare();
}

std::size_t http_tls_size(const http_tls_stream *stream)
{
    if (!stream->blocked) {
        return stream->held.capacity();
    }
    const bool waits_with_keys = !stream->shakes_hands && SSL_is_init_finished(stream->tls) == 0;
    return stream->held.capacity() +
           (waits_with_keys ? http_tls_blocked_keys : std::size_t{http_tls_sent_record});
}
