#include "control/request.h"

#include <algorithm>
#include <charconv>

namespace {

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

constexpr std::string_view token_marks = "!#$%&'*+-.^_`|~";

/// What a method and the name of a header are made of.
bool is_token(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return is_digit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
               token_marks.find(c) != std::string_view::npos;
    });
}

bool is_visible(char c)
{
    return c > ' ' && c < 0x7f;
}

bool is_target(std::string_view text)
{
    return text.starts_with('/') && std::all_of(text.begin(), text.end(), is_visible);
}

bool is_version(std::string_view text)
{
    constexpr std::string_view front = "HTTP/1.";
    return text.starts_with(front) && text.size() == front.size() + 1 && is_digit(text.back());
}

/// No line of text has it, wherever its end is.
bool is_stray_control(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return (byte < ' ' && c != '\r' && c != '\n' && c != '\t') || byte == 0x7f;
}

std::optional<control_request> request_line_read(std::string_view line)
{
    const std::size_t first = line.find(' ');
    const std::size_t last = line.rfind(' ');
    if (first == std::string_view::npos || first == last) {
        return std::nullopt;
    }
    const std::string_view method = line.substr(0, first);
    const std::string_view target = line.substr(first + 1, last - first - 1);
    if (!is_token(method) || !is_target(target) || !is_version(line.substr(last + 1))) {
        return std::nullopt;
    }
    const std::size_t mark = std::min(target.find('?'), target.size());
    return control_request{method == "GET", target.substr(0, mark),
                           target.substr(std::min(mark + 1, target.size()))};
}

bool is_header_line(std::string_view line)
{
    return is_token(line.substr(0, std::min(line.find(':'), line.size()))) &&
           line.find(':') != std::string_view::npos && line.find('\r') == std::string_view::npos;
}

/// Takes a line off the text; nothing when its end has not come.
std::optional<std::string_view> take_line(std::string_view &text)
{
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return line;
}

/// Header lines up to the empty one.
control_head_state headers_skip(std::string_view text)
{
    for (;;) {
        const auto line = take_line(text);
        if (!line || line->empty()) {
            return line ? control_head_state::whole : control_head_state::incomplete;
        }
        if (!is_header_line(*line)) {
            return control_head_state::bad;
        }
    }
}

/// The head alone: what follows it is nobody's.
std::string_view up_to_empty_line(std::string_view text)
{
    const std::size_t end = std::min(text.find("\n\n"), std::min(text.find("\n\r\n"), text.size()));
    return text.substr(0, end);
}

std::optional<std::uint64_t> number_read(std::string_view text)
{
    std::uint64_t number = 0;
    const auto [stopped, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc{} && stopped == text.data() + text.size() ? std::optional{number}
                                                                        : std::nullopt;
}

/// False when it is neither "wait" nor "after", or is there already, or has no fitting number.
bool parameter_take(std::string_view parameter, control_wait &wanted)
{
    const std::size_t equals = parameter.find('=');
    if (equals == std::string_view::npos) {
        return false;
    }
    const std::string_view name = parameter.substr(0, equals);
    const auto number = number_read(parameter.substr(equals + 1));
    if (name == "wait" && wanted.seconds == 0) {
        wanted.seconds = number.value_or(0);
        return wanted.seconds >= 1 && wanted.seconds <= control_wait_limit;
    }
    if (name == "after" && !wanted.after) {
        wanted.after = number;
        return number.has_value();
    }
    return false;
}

} // namespace

control_head control_request_read(std::string_view text)
{
    const std::string_view head = up_to_empty_line(text);
    if (std::any_of(head.begin(), head.end(), is_stray_control)) {
        return {control_head_state::bad};
    }
    const auto line = take_line(text);
    if (!line) {
        return {control_head_state::incomplete};
    }
    const auto request = request_line_read(*line);
    const control_head_state state = request ? headers_skip(text) : control_head_state::bad;
    return {state, state == control_head_state::whole ? *request : control_request{}};
}

std::optional<control_wait> control_wait_read(std::string_view query)
{
    control_wait wanted;
    while (!query.empty()) {
        const std::size_t end = query.find('&');
        if (!parameter_take(query.substr(0, end), wanted) || end + 1 == query.size()) {
            return std::nullopt;
        }
        query.remove_prefix(std::min(end, query.size() - 1) + 1);
    }
    return wanted;
}
