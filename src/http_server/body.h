#pragma once

#include <cstddef>
#include <string>

#include "http_server/chunks.h"

/// The body of one request as it comes, announced by its length or in chunks. Internal to the server's
/// connections.

struct http_body {
    std::string text;          // what has come of it; of chunks, only what is in them
    std::size_t announced = 0; // bytes, when it does not come in chunks
    bool chunked = false;
    http_chunks chunks;
};

/// Moves what is held over to the body, as far as it belongs to it.
[[nodiscard]] chunks_result http_body_take(http_body *body, std::string *held);

/// The message that the parser gets: the head, which ends in its blank line, and the body, which is
/// empty afterwards. Of a body that came in chunks the parser sees the length: where `char` is unsigned it
/// would take sizes of chunks that are no numbers.
[[nodiscard]] std::string http_body_join(std::string head, http_body *body);
