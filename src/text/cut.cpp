#include "text/cut.h"

#include <cstring>

namespace {

bool is_continuation(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

} // namespace

void text_cut_to(char *field, std::size_t size, const char *text)
{
    field[0] = '\0';
    if (text == nullptr) {
        return;
    }
    std::size_t length = strnlen(text, size);
    if (length == size) {
        for (--length; length > 0 && is_continuation(text[length]); --length) {
        }
    }
    std::memcpy(field, text, length);
    field[length] = '\0';
}
