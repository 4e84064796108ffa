#include "tools/control/answer.h"

#include <strings.h>

#include <charconv>

namespace {

constexpr std::string_view end_of_head = "\r\n\r\n";
constexpr char too_long[] = "its answer is too long";
constexpr char no_http[] = "its answer is no HTTP";

template <typename T>
bool parse_number(std::string_view text, T &number)
{
    const char *const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, number);
    return error == std::errc{} && stopped == end;
}

/// "HTTP/1.1 200 OK"
bool parse_status(std::string_view line, int &status)
{
    constexpr std::string_view version = "HTTP/1.";
    constexpr std::size_t code_at = version.size() + 2;
    return line.size() >= code_at + 3 && line.substr(0, version.size()) == version &&
           parse_number(line.substr(code_at, 3), status) && status >= 100 && status <= 599;
}

std::string_view take_line(std::string_view &rest)
{
    const std::size_t end = rest.find("\r\n");
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 2);
    return line;
}

bool is_name(std::string_view line, std::string_view name)
{
    return line.size() > name.size() && line[name.size()] == ':' &&
           strncasecmp(line.data(), name.data(), name.size()) == 0;
}

std::string_view value_of(std::string_view line)
{
    line.remove_prefix(line.find(':') + 1);
    const std::size_t begin = line.find_first_not_of(" \t");
    const std::size_t last = line.find_last_not_of(" \t");
    return begin == std::string_view::npos ? "" : line.substr(begin, last + 1 - begin);
}

const char *parse_fields(std::string_view rest, velmctl_head &head)
{
    while (!rest.empty()) {
        const std::string_view line = take_line(rest);
        if (is_name(line, "Transfer-Encoding")) {
            return no_http; // the daemon sends none
        }
        if (is_name(line, "Content-Length")) {
            std::size_t length = 0;
            if (!parse_number(value_of(line), length)) {
                return no_http;
            }
            head.length = length;
        }
    }
    return nullptr;
}

} // namespace

const char *velmctl_head_parse(std::string_view text, velmctl_head &head)
{
    if (head.size == 0) {
        const std::size_t end = text.find(end_of_head);
        if (end > velmctl_head_limit) { // or none
            return text.size() > velmctl_head_limit ? no_http : nullptr;
        }
        std::string_view rest = text.substr(0, end + 2);
        if (!parse_status(take_line(rest), head.status)) {
            return no_http;
        }
        const char *const problem = parse_fields(rest, head);
        if (problem != nullptr) {
            return problem;
        }
        head.size = end + end_of_head.size();
    }
    const std::size_t body = head.length.value_or(text.size() - head.size);
    return body > velmctl_body_limit ? too_long : nullptr;
}
