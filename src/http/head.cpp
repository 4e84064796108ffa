#include "http/head.h"

#include <event2/keyvalq_struct.h>
#include <event2/util.h>

#include <charconv>
#include <optional>
#include <string>

#include "text/trim.h"

namespace {

constexpr std::string_view blanks = " \t";

std::string_view take_line(std::string_view *text)
{
    const std::size_t end = text->find('\n');
    std::string_view line = text->substr(0, end);
    text->remove_prefix(end == std::string_view::npos ? text->size() : end + 1);
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return line;
}

template <typename Number>
bool parse_number(std::string_view text, Number *number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
    return error == std::errc{} && end == text.data() + text.size();
}

/// "HTTP/1.1 200 OK"; the reason may be missing.
bool parse_status_line(std::string_view line, int *minor_version, http_client_head *head)
{
    constexpr std::string_view protocol = "HTTP/1.";
    constexpr std::size_t code_at = protocol.size() + 2;
    constexpr std::size_t code_end = code_at + 3;
    return line.size() >= code_end && line.starts_with(protocol) && line[code_at - 1] == ' ' &&
           (line.size() == code_end || line[code_end] == ' ') &&
           parse_number(line.substr(protocol.size(), 1), minor_version) &&
           parse_number(line.substr(code_at, 3), &head->code) && head->code >= 100;
}

bool add_header(std::string_view line, evkeyvalq *headers)
{
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0 ||
        line.find('\0') != std::string_view::npos) {
        return false;
    }
    const std::string name{line.substr(0, colon)};
    const std::string value{trim(line.substr(colon + 1), blanks)};
    return name.find_first_of(" \t\r") == std::string::npos && // a lone one ends no line
           value.find('\r') == std::string::npos &&
           evhttp_add_header(headers, name.c_str(), value.c_str()) == 0;
}

bool add_headers(std::string_view text, evkeyvalq *headers)
{
    int count = 0;
    while (!text.empty()) {
        std::string line{take_line(&text)};
        if (line.empty()) {
            return true;
        }
        while (text.starts_with(' ') || text.starts_with('\t')) { // an old way to go on
            line += ' ';
            line += trim(take_line(&text), blanks);
        }
        if (++count > http_client_headers_max || !add_header(line, headers)) {
            return false;
        }
    }
    return true;
}

int count_of(const evkeyvalq *headers, const char *name)
{
    int count = 0;
    for (const evkeyval *header = headers->tqh_first; header != nullptr;
         header = header->next.tqe_next) {
        count += static_cast<int>(evutil_ascii_strcasecmp(header->key, name) == 0);
    }
    return count;
}

bool is(const char *value, const char *word)
{
    return value != nullptr && evutil_ascii_strcasecmp(value, word) == 0;
}

bool has_no_body(int code)
{
    return code < 200 || code == 204 || code == 304;
}

/// Two lengths, or a length beside chunks, would let two readers see different ends.
bool parse_framing(const evkeyvalq *headers, http_client_head *head)
{
    const char *const coding = evhttp_find_header(headers, "Transfer-Encoding");
    const char *const length = evhttp_find_header(headers, "Content-Length");
    if (count_of(headers, "Transfer-Encoding") + count_of(headers, "Content-Length") > 1) {
        return false;
    }
    if (coding != nullptr) {
        head->framing = http_client_framing::chunked;
        return is(coding, "chunked"); // no other was asked for
    }
    if (length != nullptr) {
        head->framing = http_client_framing::counted;
        return parse_number(std::string_view{length}, &head->length);
    }
    return true;
}

} // namespace

bool http_client_head_parse(std::string_view text, evkeyvalq *headers, http_client_head *head)
{
    int minor_version = 0;
    if (!parse_status_line(take_line(&text), &minor_version, head) || !add_headers(text, headers) ||
        !parse_framing(headers, head)) {
        return false;
    }
    if (has_no_body(head->code)) {
        head->framing = http_client_framing::none;
    }
    const char *const connection = evhttp_find_header(headers, "Connection");
    head->leaves_open =
        head->framing != http_client_framing::until_end &&
        (minor_version == 0 ? is(connection, "keep-alive") : !is(connection, "close"));
    return true;
}
