#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "handles/keyvalq.h"
#include "http/head.h"

/// An HTTP answer, put together from whatever pieces it comes in. It holds no more than its limit
/// and a head of 16 KiB. Interim answers (1xx) are passed over.

inline constexpr std::size_t http_client_head_size_max = 16 * 1024;

enum class http_client_answer_state {
    incomplete,
    whole,      // its length has come, or its last chunk: what follows does not count
    not_http,   // the head is broken or too long
    broken_body // longer than the limit, or its chunks are broken
};

class http_client_answer {
  public:
    explicit http_client_answer(std::size_t body_size_max) : body_size_max_{body_size_max}
    {
    }

    /// Takes the next bytes; the state after them.
    http_client_answer_state read(std::string_view bytes);

    /// The other side has ended in good order: an answer without a length and chunks is whole then.
    http_client_answer_state end();

    /// The connection can serve another request: the other side leaves it open, and nothing lies
    /// between this answer and the next.
    [[nodiscard]] bool leaves_open() const;

    [[nodiscard]] int code() const
    {
        return head_.code;
    }
    [[nodiscard]] evkeyvalq *headers()
    {
        return headers_.get();
    }
    [[nodiscard]] const std::string &body() const
    {
        return body_;
    }

  private:
    enum class part { head, counted_body, body_until_end, chunk_size, chunk, chunk_end, done };

    void read_part(std::string_view *bytes);
    void read_head(std::string_view *bytes);
    void head_ended();
    void read_chunk_size(std::string_view *bytes);
    void read_chunk_end(std::string_view *bytes);
    void read_body(std::string_view *bytes);
    bool take_line(std::string_view *bytes);
    bool make_room(std::uint64_t announced);
    void become_whole();

    std::size_t body_size_max_;
    part part_ = part::head;
    http_client_answer_state state_ = http_client_answer_state::incomplete;
    std::string head_text_;
    std::size_t head_size_ = 0; // with the heads that were passed over
    std::string line_;          // the part of it that has come
    http_client_head head_;
    evkeyvalq_list headers_;
    std::string body_;
    std::uint64_t left_ = 0; // of the body, or of the chunk
    bool ends_clean_ = true; // the answer's end is the end of what came
};
