#include "http_server/held.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

constexpr std::size_t growth_step = 4 * 1024;
constexpr std::size_t worth_giving_back = 512;

void move_to(std::string *text, std::size_t room)
{
    std::string moved;
    moved.reserve(room);
    moved.append(*text);
    http_held_wipe(text);
    text->swap(moved);
}

} // namespace

void http_held_wipe(std::string *text)
{
    OPENSSL_cleanse(text->data(), text->size());
}

void http_held_wipe(evbuffer *buffer)
{
    evbuffer_iovec pieces[4];
    const int count = evbuffer_peek(buffer, -1, nullptr, pieces, std::size(pieces));
    for (int i = 0; i < std::min<int>(count, std::size(pieces)); ++i) {
        OPENSSL_cleanse(pieces[i].iov_base, pieces[i].iov_len);
    }
}

void http_held_take_over(std::string *text, evbuffer *input)
{
    evbuffer_iovec piece{};
    while (evbuffer_get_length(input) != 0) {
        evbuffer_peek(input, -1, nullptr, &piece, 1);
        http_held_make_room(text, piece.iov_len);
        text->append(static_cast<const char *>(piece.iov_base), piece.iov_len);
        OPENSSL_cleanse(piece.iov_base, piece.iov_len);
        evbuffer_drain(input, piece.iov_len);
    }
}

void http_held_make_room(std::string *text, std::size_t size)
{
    const std::size_t needed = text->size() + size;
    if (needed > text->capacity()) {
        move_to(text, needed <= growth_step
                          ? std::max(needed, 2 * text->size())
                          : (needed + growth_step - 1) / growth_step * growth_step);
    }
}

void http_held_take_off(std::string *text, std::size_t size)
{
    const std::size_t left = text->size() - size;
    std::memmove(text->data(), text->data() + size, left);
    OPENSSL_cleanse(text->data() + left, size);
    text->resize(left);
    if (left == 0 && text->capacity() > worth_giving_back) {
        std::string{}.swap(*text);
    } else if (text->capacity() > growth_step && left <= growth_step) {
        move_to(text, left);
    }
}

void http_held_move_behind(std::string *text, std::string *other)
{
    text->append(*other);
    http_held_wipe(other);
    std::string{}.swap(*other);
}
