#include "http_server/head_filter.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <system_error>

#include "request/status.h"
#include "text/trim.h"

namespace {

constexpr std::string_view line_end = "\r\n";
constexpr std::string_view head_end = "\r\n\r\n";
constexpr std::string_view blanks = " \t";
constexpr const char *lifted_names[] = {"X-Assertion", "X-Attestation"};
/// The library reads these, and the log shows the last. It would make objects of all others too, for
/// nobody: of 98 headers of 3 bytes 14 kB, which stay until the answer has left.
constexpr const char *read_names[] = {"Proxy-Connection", "Content-Length", "User-Agent"};
/// Of these; no client sends one of them twice.
constexpr std::size_t max_read = 8;
/// The parser compares values of these as 32-bit words, wherever they begin in its buffer. A machine
/// that takes a word from an address divisible by 4 only would end the process by SIGBUS. So the parser
/// gets none of them; what they say is told beside the text.
constexpr const char *compared_names[] = {"Connection", "Transfer-Encoding", "Content-Type"};
constexpr std::size_t usual_head = 512;

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

bool same_name(std::string_view name, std::string_view other)
{
    return name.size() == other.size() && strncasecmp(name.data(), other.data(), name.size()) == 0;
}

/// The literal that is the name in any case; null when none is.
template <std::size_t Count>
const char *name_among(const char *const (&names)[Count], std::string_view name)
{
    const auto *const found =
        std::find_if(std::begin(names), std::end(names),
                     [name](const char *one) { return same_name(name, one); });
    return found == std::end(names) ? nullptr : *found;
}

void refuse(http_head *head, const char *reason, int status = http_status_bad_request)
{
    head->refusal = reason;
    head->refusal_status = status;
}

bool is_expectation(std::string_view name, std::string_view value)
{
    return same_name(name, "Expect") && same_name(value, "100-continue");
}

/// Without a line feed: the parser refuses such a header, so it must see it.
bool has_carriage_return(std::string_view line)
{
    return line.find('\r') != std::string_view::npos;
}

/// 0 for what is no number, and for one of so many digits that its size might not be what it says.
std::uint64_t length_of(std::string_view value)
{
    constexpr std::size_t most_digits = 18;
    std::uint64_t length = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), length);
    const bool is_number = error == std::errc{} && end == value.data() + value.size();
    return is_number && value.size() <= most_digits ? length : 0;
}

/// Reads the lines after the request line, one call a line.
class header_lines {
  public:
    explicit header_lines(http_head *head) : head_{head}
    {
    }

    void add(std::string_view line)
    {
        if (++count_ > http_head_max_headers) {
            refuse(head_, "too many headers", http_status_header_fields_too_large);
            return;
        }
        if (!line.empty() && is_blank(line.front())) {
            add_folded(line);
            return;
        }
        add_header(line);
    }

    /// There are no more. Of several attestations or assertions the first counts.
    void end()
    {
        drop_repeated();
    }

  private:
    void drop_repeated()
    {
        std::vector<http_head_lifted> *const lifted = &head_->lifted;
        if (lifted->size() > 1 &&
            std::any_of(lifted->begin(), lifted->end() - 1, [lifted](const auto &earlier) {
                return earlier.name == lifted->back().name;
            })) {
            lifted->pop_back();
        }
    }

    void add_header(std::string_view line)
    {
        const std::size_t colon = line.find(':');
        const std::string_view name = line.substr(0, colon);
        if (colon == std::string_view::npos || name.empty() ||
            std::any_of(name.begin(), name.end(), is_blank)) {
            refuse(head_, "no header");
            return;
        }
        const std::string_view value = trim(line.substr(colon + 1), blanks);
        const char *const lifted = name_among(lifted_names, name);
        in_lifted_ = lifted != nullptr;
        if (in_lifted_) {
            drop_repeated();
            head_->lifted.push_back({lifted, {}});
            lift(value);
            return;
        }
        value_size_ = 0;
        header_begin_ = head_->text.size();
        const bool has_length = same_name(name, "Content-Length");
        has_encoding_ = same_name(name, "Transfer-Encoding");
        may_be_left_out_ = !has_length;
        head_->expects_continue = head_->expects_continue || is_expectation(name, value);
        const bool is_read = name_among(read_names, name) != nullptr &&
                             (!may_be_left_out_ || ++read_count_ <= max_read);
        is_left_out_ = !is_read && !has_carriage_return(line);
        if (name_among(compared_names, name) != nullptr) {
            add_compared(name, line, value);
        }
        if (has_length) {
            head_->body_size = length_of(value);
            count_framing();
        }
        keep(line, std::max(name.size(), value.size()));
    }

    void add_compared(std::string_view name, std::string_view line, std::string_view value)
    {
        if (has_carriage_return(line)) {
            refuse(head_, "carriage return in a header");
        } else if (has_encoding_) {
            add_transfer_encoding(value);
        } else if (same_name(name, "Connection")) {
            head_->wants_close = head_->wants_close || same_name(value, "close");
            head_->wants_keep_alive = head_->wants_keep_alive || same_name(value, "keep-alive");
        }
    }

    void add_transfer_encoding(std::string_view value)
    {
        if (!same_name(value, "chunked")) {
            refuse(head_, "unknown transfer encoding", http_status_not_implemented);
            return;
        }
        head_->chunked = true;
        count_framing();
    }

    /// Of two statements where the body ends, others on the way may have believed the other one.
    void count_framing()
    {
        if (++framing_count_ > 1) {
            refuse(head_, "more than one length of the body");
        }
    }

    /// A line that begins with white space continues the header before it.
    void add_folded(std::string_view line)
    {
        if (count_ == 1) {
            refuse(head_, "no header");
            return;
        }
        if (!in_lifted_ && is_left_out_ && has_carriage_return(line)) {
            refuse(head_, "carriage return in a header");
            return;
        }
        if (!in_lifted_) {
            const std::string_view value = trim(line, blanks);
            if (has_encoding_ && !value.empty()) {
                refuse(head_, "unknown transfer encoding", http_status_not_implemented);
            }
            keep(line, value.size());
            return;
        }
        if (!head_->lifted.back().value.empty()) {
            lift(" ");
        }
        lift(trim(line, blanks));
    }

    /// Like every text of a request that is longer than it may be, this one is a bad request.
    void lift(std::string_view text)
    {
        std::string *const value = &head_->lifted.back().value;
        if (text.size() > http_head_max_lifted - value->size()) {
            refuse(head_, "attestation or assertion too long");
            return;
        }
        value->append(text);
    }

    void keep(std::string_view line, std::size_t size)
    {
        value_size_ += size;
        if (value_size_ <= http_head_parser_buffer && !is_left_out_) {
            head_->text.append(line).append(line_end);
        } else if (value_size_ <= http_head_max_value && may_be_left_out_) {
            head_->text.resize(header_begin_);
        } else {
            refuse(head_, "header too long", http_status_header_fields_too_large);
        }
    }

    http_head *head_;
    std::size_t count_ = 0;
    std::size_t value_size_ = 0;    // of the header being read, its folded lines included
    std::size_t framing_count_ = 0; // headers that tell where the body ends
    std::size_t read_count_ = 0;    // headers that somebody reads
    std::size_t header_begin_ = 0;  // of the header being read, in the head's text
    bool in_lifted_ = false;
    bool has_encoding_ = false; // the header being read is "Transfer-Encoding"
    bool may_be_left_out_ = true;
    /// Among them: we give leave to send a body ourselves. And a body is JSON, whatever its header
    /// says; the library would take that of a form apart, into an object for each "&".
    bool is_left_out_ = false;
};

/// The URI stands between the first two blanks; a line without them is the parser's to judge.
bool uri_too_long(std::string_view request_line)
{
    const std::size_t before = std::min(request_line.find(' '), request_line.size());
    const std::string_view rest = request_line.substr(before);
    return rest.substr(0, rest.rfind(' ') + 1).size() > http_head_parser_buffer + 2 ||
           before > http_head_parser_buffer;
}

/// The request line without the query, which nobody asks for: the library would make an object of each
/// "&" in it. "*", which names no path, becomes one that nobody serves: the library would not answer.
void append_request_line(std::string_view line, std::string *text)
{
    const std::size_t uri = std::min(line.find(' '), line.size() - 1) + 1;
    const std::size_t blank = line.rfind(' ');
    const std::size_t end = blank == std::string_view::npos || blank < uri ? line.size() : blank;
    const std::string_view target = line.substr(uri, end - uri);
    text->append(line.substr(0, uri)).append(target == "*" ? "/" : "");
    text->append(target.substr(0, target.find('?'))).append(line.substr(end)).append(line_end);
}

std::string_view take_line(std::string_view *rest)
{
    const std::size_t end = std::min(rest->find(line_end), rest->size());
    const std::string_view line = rest->substr(0, end);
    rest->remove_prefix(std::min(end + line_end.size(), rest->size()));
    return line;
}

} // namespace

std::size_t http_head_length(std::string_view bytes, std::size_t *scanned)
{
    std::size_t at = std::min(*scanned, bytes.size());
    *scanned = bytes.size();
    while ((at = bytes.find('\n', at)) != std::string_view::npos) {
        ++at;
        const std::string_view so_far = bytes.substr(0, at);
        if (!so_far.ends_with(line_end) || so_far.ends_with(head_end)) {
            return at;
        }
    }
    return 0;
}

int http_head_line_refusal(std::string_view bytes)
{
    const std::string_view line = bytes.substr(bytes.rfind('\n') + 1);
    if (line.size() <= http_head_max_line) {
        return 0;
    }
    return name_among(lifted_names, line.substr(0, line.find(':'))) != nullptr
               ? http_status_bad_request
               : http_status_header_fields_too_large;
}

http_head http_head_filter(std::string_view head)
{
    http_head result;
    if (head.size() > http_head_max_size) {
        refuse(&result, "head too long", http_status_header_fields_too_large);
        return result;
    }
    if (!head.ends_with(head_end)) {
        refuse(&result, "line feed without carriage return");
        return result;
    }
    if (head.find('\0') != std::string_view::npos) {
        // The parser's texts end at it: a path would compare as what stands before.
        refuse(&result, "zero byte in the head");
        return result;
    }
    std::string_view rest = head;
    const std::string_view request_line = take_line(&rest);
    if (uri_too_long(request_line)) {
        refuse(&result, "uri too long", http_status_uri_too_long);
        return result;
    }
    result.text.reserve(std::min(head.size(), usual_head));
    append_request_line(request_line, &result.text);
    header_lines lines{&result};
    while (rest.size() > line_end.size() && result.refusal == nullptr) {
        lines.add(take_line(&rest));
    }
    lines.end();
    result.text.append(line_end);
    return result;
}
