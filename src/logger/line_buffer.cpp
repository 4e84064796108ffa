#include "logger/line_buffer.h"

#include <algorithm>
#include <cstdio>

bool line_buffer::append(const char *format, va_list arguments)
{
    const std::size_t room = text_.size() - length_;
    const int written = std::vsnprintf(&text_[length_], room, format, arguments);
    if (written < 0) {
        return false;
    }
    length_ += std::min(static_cast<std::size_t>(written), room - 1);
    return true;
}

void line_buffer::append(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    append(format, arguments);
    va_end(arguments);
}

void line_buffer::append_time(const std::tm &time)
{
    length_ += std::strftime(&text_[length_], text_.size() - length_, "%F %T", &time);
}

void line_buffer::end_line()
{
    length_ = std::min(length_, text_.size() - 2);
    text_[length_++] = '\n';
    text_[length_] = '\0';
}

void line_buffer::replace_control_characters(std::size_t from)
{
    for (std::size_t i = from; i < length_; ++i) {
        const auto c = static_cast<unsigned char>(text_[i]);
        const bool is_c1 = c == 0xc2 && i + 1 < length_ &&
                           static_cast<unsigned char>(text_[i + 1]) >= 0x80 &&
                           static_cast<unsigned char>(text_[i + 1]) < 0xa0;
        if (is_c1) {
            text_[i] = '?';
            text_[++i] = '?';
        } else if (c == '\n' || c == '\t' || c == '\r') {
            text_[i] = ' ';
        } else if (c < 0x20 || c == 0x7f) {
            text_[i] = '?';
        }
    }
}
