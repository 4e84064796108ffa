#include "http/answer.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace {

/// The line that tells a chunk's size. An extension may stand behind the size; it means nothing here.
constexpr std::size_t chunk_line_max = 1024;

bool parse_chunk_size(std::string_view line, std::uint64_t *size)
{
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), *size, 16);
    const std::string_view rest = line.substr(static_cast<std::size_t>(end - line.data()));
    return error == std::errc{} && rest.find_first_not_of(" \t") == rest.find(';');
}

} // namespace

http_client_answer_state http_client_answer::read(std::string_view bytes)
{
    while (!bytes.empty() && state_ == http_client_answer_state::incomplete) {
        read_part(&bytes);
    }
    const bool chunks_ended = head_.framing == http_client_framing::chunked;
    ends_clean_ = bytes == (chunks_ended ? "\r\n" : "");
    return state_;
}

http_client_answer_state http_client_answer::end()
{
    if (part_ == part::body_until_end && state_ == http_client_answer_state::incomplete) {
        become_whole();
    }
    return state_;
}

bool http_client_answer::leaves_open() const
{
    return part_ == part::done && ends_clean_ && head_.leaves_open;
}

void http_client_answer::become_whole()
{
    part_ = part::done;
    state_ = http_client_answer_state::whole;
}

void http_client_answer::read_part(std::string_view *bytes)
{
    switch (part_) {
    case part::head:
        return read_head(bytes);
    case part::counted_body:
    case part::body_until_end:
    case part::chunk:
        return read_body(bytes);
    case part::chunk_size:
        return read_chunk_size(bytes);
    case part::chunk_end:
        return read_chunk_end(bytes);
    case part::done:
        return;
    }
}

/// True when the line has ended, which then lies in `line_` without its end.
bool http_client_answer::take_line(std::string_view *bytes)
{
    const std::size_t end = bytes->find('\n');
    line_ += bytes->substr(0, end);
    bytes->remove_prefix(end == std::string_view::npos ? bytes->size() : end + 1);
    if (end != std::string_view::npos && line_.ends_with('\r')) {
        line_.pop_back();
    }
    return end != std::string_view::npos;
}

void http_client_answer::read_head(std::string_view *bytes)
{
    const std::size_t before = bytes->size();
    const bool line_is_whole = take_line(bytes);
    head_size_ += before - bytes->size();
    if (head_size_ > http_client_head_size_max) {
        state_ = http_client_answer_state::not_http;
        return;
    }
    if (line_is_whole) {
        const bool is_last = line_.empty();
        head_text_ += std::exchange(line_, {}) + '\n';
        if (is_last) {
            head_ended();
        }
    }
}

void http_client_answer::head_ended()
{
    const std::string text = std::exchange(head_text_, {});
    evhttp_clear_headers(headers_.get());
    head_ = {};
    if (!http_client_head_parse(text, headers_.get(), &head_)) {
        state_ = http_client_answer_state::not_http;
        return;
    }
    if (head_.code < 200) {
        return; // the next head is the answer's
    }
    switch (head_.framing) {
    case http_client_framing::none:
        return become_whole();
    case http_client_framing::counted:
        part_ = part::counted_body;
        left_ = head_.length;
        if (make_room(left_) && left_ == 0) {
            become_whole();
        }
        return;
    case http_client_framing::chunked:
        part_ = part::chunk_size;
        return;
    case http_client_framing::until_end:
        part_ = part::body_until_end;
        return;
    }
}

void http_client_answer::read_chunk_size(std::string_view *bytes)
{
    const bool line_is_whole = take_line(bytes);
    if (line_.size() > chunk_line_max || (line_is_whole && !parse_chunk_size(line_, &left_))) {
        state_ = http_client_answer_state::broken_body;
        return;
    }
    if (line_is_whole) {
        line_.clear();
        part_ = part::chunk;
        if (left_ == 0) {
            become_whole();
        } else {
            make_room(left_);
        }
    }
}

void http_client_answer::read_chunk_end(std::string_view *bytes)
{
    const bool line_is_whole = take_line(bytes);
    if (line_is_whole && line_.empty()) {
        part_ = part::chunk_size;
    } else if (line_is_whole || line_ != "\r") {
        state_ = http_client_answer_state::broken_body;
    }
}

void http_client_answer::read_body(std::string_view *bytes)
{
    const bool is_counted = part_ != part::body_until_end;
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(left_, bytes->size()));
    const std::string_view piece = is_counted ? bytes->substr(0, size) : *bytes;
    if (!make_room(piece.size())) {
        return;
    }
    body_ += piece;
    bytes->remove_prefix(piece.size());
    if (!is_counted) {
        return;
    }
    left_ -= piece.size();
    if (left_ == 0 && part_ == part::chunk) {
        part_ = part::chunk_end;
    } else if (left_ == 0) {
        become_whole();
    }
}

/// The body grows by doubling, as far as its limit and no further.
bool http_client_answer::make_room(std::uint64_t announced)
{
    if (announced > body_size_max_ - body_.size()) {
        state_ = http_client_answer_state::broken_body;
        return false;
    }
    const std::size_t needed = body_.size() + static_cast<std::size_t>(announced);
    if (needed > body_.capacity()) {
        body_.reserve(std::max(needed, std::min(2 * body_.capacity(), body_size_max_)));
    }
    return true;
}
