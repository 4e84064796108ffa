#pragma once

#include <array>
#include <cstdarg>
#include <cstddef>
#include <ctime>

/// A line of the log under construction: never more than the buffer holds, always terminated. It takes no
/// memory from the heap, so that a line can tell that there is none.
class line_buffer {
  public:
    /// False, with errno set and nothing appended, when the message cannot be formatted. What does not
    /// fit is cut.
    [[gnu::format(printf, 2, 0)]] bool append(const char *format, va_list arguments);
    [[gnu::format(printf, 2, 3)]] void append(const char *format, ...);

    /// "2026-11-23 01:59:27"
    void append_time(const std::tm &time);

    /// The newline of a line that filled the buffer takes the place of its last character.
    void end_line();

    /// Nothing from outside may end the line or steer the terminal that shows it.
    void replace_control_characters(std::size_t from);

    [[nodiscard]] std::size_t length() const
    {
        return length_;
    }
    /// Terminated by a zero; borrowed until the line changes.
    [[nodiscard]] const char *text(std::size_t from = 0) const
    {
        return &text_[from];
    }

  private:
    static constexpr std::size_t capacity = 8000; // with its newline and the zero behind it

    std::array<char, capacity> text_;
    std::size_t length_ = 0;
};
