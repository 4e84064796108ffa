#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// What a request head goes through before libevhtp's parser sees it. The parser takes any number
/// of headers but no value above 8191 bytes, and the attestation of a phone comes close to that; so
/// the head is gathered whole, held against our own limits, and the two long headers are lifted out
/// of it, to be put back when the parser is done. Headers that nobody reads are left out, and those that
/// the parser reads in a way that not every machine takes.

inline constexpr std::size_t http_head_max_size = 64 * 1024; // the whole head, blank line included
inline constexpr std::size_t http_head_max_headers = 100;    // lines after the request line
/// What the parser's buffer takes: one URI, one name or one value.
inline constexpr std::size_t http_head_parser_buffer = 8191;
/// A name, or a value that is not lifted. One that the parser cannot take is left out of the head:
/// nobody asks for it. One that says where the body ends is refused.
inline constexpr std::size_t http_head_max_value = 8192;
inline constexpr std::size_t http_head_max_lifted = 16384; // a lifted value
/// A line that is longer is refused before it has ended: no header that may pass needs it.
inline constexpr std::size_t http_head_max_line = http_head_max_lifted + 64;

/// "X-Assertion" or "X-Attestation", in any case; the value without the white space around it and
/// with a folded line joined by one blank.
struct http_head_lifted {
    const char *name; // a literal
    std::string value;
};

struct http_head {
    const char *refusal = nullptr; // why the head is refused, a literal; null: it is not
    int refusal_status = 400;      // what the client is told then
    std::string text;              // for the parser: the request line and the headers that are read
    std::vector<http_head_lifted> lifted;
    bool chunked = false;          // the text does not say so, nor any length
    bool wants_close = false;      // by "Connection", which is not in the text
    bool wants_keep_alive = false; // likewise
    std::uint64_t body_size = 0;   // as announced; 0 for a number that only the parser can judge
    bool expects_continue = false; // the client awaits leave to send the body; the line is left out
};

/// The length of the head that `bytes` begin with, its blank line included; 0 when it has not ended
/// yet. A line feed without a carriage return ends it too: such a head is refused at once.
/// `scanned` is the caller's memory of how far earlier calls have looked (0 at first).
[[nodiscard]] std::size_t http_head_length(std::string_view bytes, std::size_t *scanned);

/// The status that refuses a head which has not ended but whose last line is too long already; 0 when
/// it may still end well.
[[nodiscard]] int http_head_line_refusal(std::string_view bytes);

/// Takes a whole head apart. It is refused when a line is no header, or when it leaves in doubt where
/// the body ends: by "Content-Length" and "Transfer-Encoding" there may be one statement, and of
/// encodings only "chunked". The rest is the parser's to judge.
[[nodiscard]] http_head http_head_filter(std::string_view head);
