#include "http_server/chunks.h"

#include <algorithm>

namespace {

using part = http_chunks::part;

constexpr std::size_t max_digits = 16;

/// -1 for what is no hexadecimal digit.
int digit(char byte)
{
    if (byte >= '0' && byte <= '9') {
        return byte - '0';
    }
    const char lower = static_cast<char>(byte | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

chunks_result take_size(http_chunks *chunks, char byte)
{
    const int value = digit(byte);
    if (value >= 0 && chunks->digits < max_digits) {
        ++chunks->digits;
        // More than may come already counts the same as any more.
        chunks->size = std::min<std::size_t>(chunks->size, http_chunks_max_body + 1) * 16 +
                       static_cast<std::size_t>(value);
        return chunks_result::wants_more;
    }
    if (byte != '\r' || chunks->digits == 0) {
        return chunks_result::bad;
    }
    chunks->now = part::size_end;
    return chunks_result::wants_more;
}

chunks_result end_size(http_chunks *chunks, char byte)
{
    if (byte != '\n') {
        return chunks_result::bad;
    }
    if (chunks->size > http_chunks_max_body - chunks->total) {
        return chunks_result::too_long;
    }
    chunks->total += chunks->size;
    chunks->now = chunks->size == 0 ? part::trailer : part::data;
    chunks->digits = 0;
    return chunks_result::wants_more;
}

chunks_result take_trailer(http_chunks *chunks, char byte)
{
    if (byte == '\r') {
        chunks->now = part::end;
        return chunks_result::wants_more;
    }
    if (byte == '\n' || byte == '\0' || ++chunks->trailer > http_chunks_max_trailer ||
        chunks->trailers > 0) {
        return chunks_result::bad;
    }
    return chunks_result::wants_more;
}

chunks_result end_trailer(http_chunks *chunks, char byte)
{
    if (byte != '\n') {
        return chunks_result::bad;
    }
    if (chunks->trailer == 0) {
        return chunks_result::whole;
    }
    chunks->trailer = 0;
    ++chunks->trailers;
    chunks->now = part::trailer;
    return chunks_result::wants_more;
}

chunks_result take_line_end(http_chunks *chunks, char byte)
{
    const bool is_first = chunks->now == part::data_end;
    chunks->now = is_first ? part::data_line_feed : part::size;
    return byte == (is_first ? '\r' : '\n') ? chunks_result::wants_more : chunks_result::bad;
}

chunks_result take_byte(http_chunks *chunks, char byte)
{
    switch (chunks->now) {
    case part::size:
        return take_size(chunks, byte);
    case part::size_end:
        return end_size(chunks, byte);
    case part::data_end:
    case part::data_line_feed:
        return take_line_end(chunks, byte);
    case part::trailer:
        return take_trailer(chunks, byte);
    case part::end:
        return end_trailer(chunks, byte);
    case part::data:
        break;
    }
    return chunks_result::bad;
}

void take_data(http_chunks *chunks, std::string_view *input, std::string *body)
{
    const std::string_view data = input->substr(0, chunks->size);
    body->append(data);
    input->remove_prefix(data.size());
    chunks->size -= data.size();
    if (chunks->size == 0) {
        chunks->now = part::data_end;
    }
}

} // namespace

chunks_result http_chunks_take(http_chunks *chunks, std::string_view *input, std::string *body)
{
    while (!input->empty()) {
        if (chunks->now == part::data) {
            take_data(chunks, input, body);
            continue;
        }
        const chunks_result result = take_byte(chunks, input->front());
        input->remove_prefix(1);
        if (result != chunks_result::wants_more) {
            return result;
        }
    }
    return chunks_result::wants_more;
}
