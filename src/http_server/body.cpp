#include "http_server/body.h"

#include <algorithm>
#include <string_view>

#include "http_server/held.h"

namespace {

chunks_result take_announced(http_body *body, std::string_view *input)
{
    const std::string_view piece = input->substr(0, body->announced - body->text.size());
    body->text.append(piece);
    input->remove_prefix(piece.size());
    return body->text.size() == body->announced ? chunks_result::whole : chunks_result::wants_more;
}

} // namespace

chunks_result http_body_take(http_body *body, std::string *held)
{
    std::string_view input{*held};
    if (body->chunked) {
        http_held_make_room(&body->text,
                            std::min(input.size(), http_chunks_max_body - body->text.size()));
    } else {
        body->text.reserve(body->announced); // at once: it never moves
    }
    const chunks_result result = body->chunked
                                     ? http_chunks_take(&body->chunks, &input, &body->text)
                                     : take_announced(body, &input);
    http_held_take_off(held, held->size() - input.size());
    return result;
}

std::string http_body_join(std::string head, http_body *body)
{
    if (body->chunked) {
        constexpr std::string_view blank_line = "\r\n";
        head.erase(head.size() - blank_line.size());
        head.append("Content-Length: " + std::to_string(body->text.size()) + "\r\n\r\n");
    }
    http_held_make_room(&head, body->text.size());
    http_held_move_behind(&head, &body->text);
    return head;
}
