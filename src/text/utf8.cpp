#include "text/utf8.h"

namespace {

unsigned byte_at(std::string_view text, std::size_t i)
{
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
}

bool is_ascii(char c)
{
    return static_cast<unsigned char>(c) < 0x80;
}

} // namespace

std::size_t utf8_length(std::string_view text)
{
    if (text.empty() || is_ascii(text.front())) {
        return text.empty() ? 0 : 1;
    }
    const unsigned lead = byte_at(text, 0);
    if (lead < 0xc2 || lead > 0xf4) {
        return 0;
    }
    const std::size_t length = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    // The second byte decides what is overlong, a surrogate or beyond the last code point.
    const unsigned low = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
    const unsigned high = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
    if (byte_at(text, 1) < low || byte_at(text, 1) > high) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        if ((byte_at(text, i) & 0xc0) != 0x80) {
            return 0;
        }
    }
    return length;
}

bool is_utf8(std::string_view text)
{
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::string utf8_mended(std::string_view text)
{
    std::string mended;
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        if (length == 0) {
            mended.append("\xef\xbf\xbd");
        } else {
            mended.append(text.substr(0, length));
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return mended;
}
