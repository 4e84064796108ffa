#include <algorithm>
#include <string>

#include "allocation_meter.h"
#include "fuzz_target.h"
#include "http/answer.h"

namespace {

constexpr std::size_t limit = 1000;

struct outcome {
    http_client_answer_state state = http_client_answer_state::incomplete;
    int code = 0;
    int headers = 0;
    std::string body;
    bool operator==(const outcome &) const = default;
};

int count_headers(const evkeyvalq *headers)
{
    int count = 0;
    for (const evkeyval *header = headers->tqh_first; header != nullptr;
         header = header->next.tqe_next) {
        ++count;
    }
    return count;
}

outcome read_in_pieces(std::string_view bytes, std::size_t piece)
{
    http_client_answer answer{limit};
    outcome result;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(piece, bytes.size()))) {
        result.state = answer.read(bytes.substr(0, piece));
        FUZZ_REQUIRE(answer.body().size() <= limit);
        if (result.state != http_client_answer_state::incomplete) {
            break; // as the connection does
        }
    }
    FUZZ_REQUIRE(answer.end() == result.state ||
                 result.state == http_client_answer_state::incomplete);
    result.code = answer.code();
    result.headers = count_headers(answer.headers());
    result.body = answer.body();
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view bytes = fuzz_text({data, size});
    const allocation_meter meter;
    {
        const outcome whole = read_in_pieces(bytes, std::max<std::size_t>(size, 1));
        FUZZ_REQUIRE(whole.headers <= http_client_headers_max);
        FUZZ_REQUIRE(whole.state != http_client_answer_state::whole || whole.code >= 200);
        // A header of three bytes is 32 and its two texts in libevent; lines and body are doubled.
        FUZZ_REQUIRE(meter.peak() <= 24 * size + 4 * limit + 4096);
    }
    const outcome whole = read_in_pieces(bytes, std::max<std::size_t>(size, 1));
    for (const std::size_t piece : {std::size_t{1}, 1 + size / 7}) {
        const outcome in_pieces = read_in_pieces(bytes, piece);
        FUZZ_REQUIRE(in_pieces.state == whole.state);
        FUZZ_REQUIRE(whole.state != http_client_answer_state::whole || in_pieces == whole);
    }
    return 0;
}
