#include "text/cut.h"

#include <cstring>

#include "text/utf8.h"

void text_cut_to(char *field, std::size_t size, const char *text)
{
    field[0] = '\0';
    if (text == nullptr) {
        return;
    }
    std::size_t length = strnlen(text, size);
    if (length == size) {
        for (--length; length > 0 && utf8_is_continuation(text[length]); --length) {
        }
    }
    std::memcpy(field, text, length);
    field[length] = '\0';
}
