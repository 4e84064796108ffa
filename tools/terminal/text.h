#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Texts that came from outside, made fit for a terminal or for JSON. Bytes that are no UTF-8 become
/// U+FFFD. What commands a terminal or turns the direction of writing never gets through: control
/// characters of both ranges, line and paragraph separators, the marks of bidirectional text.

/// Such a character becomes "?".
[[nodiscard]] std::string velmctl_text_for_terminal(std::string_view text);

/// The inside of a JSON string: such a character becomes an escape, as do the quote and the backslash.
[[nodiscard]] std::string velmctl_text_for_json(std::string_view text);

/// The same for a whole document that a library printed: what is escaped already stays.
[[nodiscard]] std::string velmctl_document_for_output(std::string_view document);

/// Lines of a text: as for the terminal, but the ends of lines stay.
[[nodiscard]] std::string velmctl_lines_for_terminal(std::string_view text);

/// How many columns a terminal needs for a text that is fit for it. Colours need none.
[[nodiscard]] std::size_t velmctl_columns_of(std::string_view text);
