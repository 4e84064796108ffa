#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Takes the body out of chunks as they come, so that only what is in them is kept. Strict: a size is
/// 1 to 16 hexadecimal digits, an extension is refused, and behind the last chunk may stand one
/// trailer. Internal to the server's connections.

inline constexpr std::size_t http_chunks_max_body = 8192;
inline constexpr std::size_t http_chunks_max_trailer = 1024; // its line end included

enum class chunks_result {
    wants_more,
    whole,    // what is left of the input belongs to the next request
    bad,      // not chunked as it should be
    too_long, // a chunk is announced that the body has no room for
};

struct http_chunks {
    enum class part {
        size,
        size_end,
        data,
        data_end,
        data_line_feed,
        trailer,
        end
    } now = part::size;
    std::size_t digits = 0;  // read of the size
    std::size_t size = 0;    // of the chunk, and then what is left of it
    std::size_t total = 0;   // announced so far
    std::size_t trailer = 0; // bytes of the line behind the last chunk
    std::size_t trailers = 0;
};

/// Takes what it can from the front of `input` and appends what the chunks hold to `body`.
[[nodiscard]] chunks_result http_chunks_take(http_chunks *chunks, std::string_view *input,
                                             std::string *body);
