#include "tools/terminal/text.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "text/utf8.h"

namespace {

constexpr std::string_view replacement = "\xef\xbf\xbd"; // U+FFFD

struct character {
    char32_t code = 0;
    std::size_t length = 0; // 0: no character begins here
};

character next_character(std::string_view text)
{
    const std::size_t length = utf8_length(text);
    // The first byte begins with as many ones as there are bytes, if there are several.
    const unsigned first_mask = length == 1 ? 0x7fU : 0x7fU >> length;
    char32_t code = static_cast<unsigned char>(text.front()) & first_mask;
    for (std::size_t i = 1; i < length; ++i) {
        code = (code << 6) | (static_cast<unsigned char>(text[i]) & 0x3fU);
    }
    return {code, length};
}

struct range {
    char32_t first, last;
};

template <std::size_t Size>
bool is_in(const std::array<range, Size> &ranges, char32_t code)
{
    return std::any_of(ranges.begin(), ranges.end(),
                       [code](const range &one) { return code >= one.first && code <= one.last; });
}

// clang-format off
constexpr std::array commanding{
    range{0x00, 0x1f}, range{0x7f, 0x9f}, // control characters
    range{0x061c, 0x061c}, range{0x200e, 0x200f}, range{0x202a, 0x202e}, range{0x2066, 0x2069}, // direction
    range{0x2028, 0x2029},                // ends of lines
    range{0xfff9, 0xfffb},                // annotations
    range{0xe0000, 0xe007f},              // tags
};
/// Drawn over the character before.
constexpr std::array without_width{
    range{0x0300, 0x036f}, range{0x200b, 0x200d}, range{0xfe00, 0xfe0f}, range{0xfeff, 0xfeff},
};
constexpr std::array of_double_width{
    range{0x1100, 0x115f}, range{0x2e80, 0x303e}, range{0x3041, 0xa4cf}, range{0xac00, 0xd7a3},
    range{0xf900, 0xfaff}, range{0xfe30, 0xfe6f}, range{0xff00, 0xff60}, range{0xffe0, 0xffe6},
    range{0x1f300, 0x1faff}, range{0x20000, 0x3fffd},
};
// clang-format on

/// `special` gives what stands for a character, or nothing when it stands for itself.
template <typename Special>
std::string rewrite(std::string_view text, Special special)
{
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const character next = next_character(text);
        if (next.length == 0) {
            out += replacement;
            text.remove_prefix(1);
            continue;
        }
        const std::string instead = special(next.code);
        out += instead.empty() ? text.substr(0, next.length) : std::string_view{instead};
        text.remove_prefix(next.length);
    }
    return out;
}

std::string unit_escape(char32_t unit)
{
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "\\u%04x", static_cast<unsigned>(unit) & 0xffffU);
    return text.data();
}

/// Beyond 16 bits JSON has two escapes for one character.
std::string escape(char32_t code)
{
    if (code < 0x10000) {
        return unit_escape(code);
    }
    const char32_t rest = code - 0x10000;
    return unit_escape(0xd800 + (rest >> 10)) + unit_escape(0xdc00 + (rest & 0x3ffU));
}

} // namespace

std::string velmctl_text_for_terminal(std::string_view text)
{
    return rewrite(text,
                   [](char32_t code) { return std::string{is_in(commanding, code) ? "?" : ""}; });
}

std::string velmctl_text_for_json(std::string_view text)
{
    return rewrite(text, [](char32_t code) -> std::string {
        if (code == '"' || code == '\\') {
            return {'\\', static_cast<char>(code)};
        }
        return is_in(commanding, code) ? escape(code) : "";
    });
}

std::string velmctl_document_for_output(std::string_view document)
{
    return rewrite(document,
                   [](char32_t code) { return is_in(commanding, code) ? escape(code) : ""; });
}

std::string velmctl_lines_for_terminal(std::string_view text)
{
    return rewrite(text, [](char32_t code) {
        return std::string{code != '\n' && is_in(commanding, code) ? "?" : ""};
    });
}

std::size_t velmctl_columns_of(std::string_view text)
{
    std::size_t columns = 0;
    while (!text.empty()) {
        if (text.front() == '\033') {
            text.remove_prefix(std::min(text.find('m'), text.size() - 1) + 1);
            continue;
        }
        const character next = next_character(text);
        const bool is_wide = is_in(of_double_width, next.code);
        columns += is_in(without_width, next.code) ? 0U : is_wide ? 2U : 1U;
        text.remove_prefix(std::max<std::size_t>(next.length, 1));
    }
    return columns;
}
