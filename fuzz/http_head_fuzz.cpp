#include <evhtp/evhtp.h>
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "allocation_meter.h"
#include "fuzz_target.h"
#include "http_server/head_filter.h"

namespace {

struct parser_view {
    int begins = 0;
    int ends = 0;
    int headers = 0;
};

template <int parser_view::*Count>
int count(htparser *parser)
{
    ++(static_cast<parser_view *>(htparser_get_userdata(parser))->*Count);
    return 0;
}

/// The parser compares the values of some headers by loads that not every machine takes.
int count_header(htparser *parser, const char *name, std::size_t size)
{
    for (const char *const compared : {"Connection", "Transfer-Encoding", "Content-Type"}) {
        FUZZ_REQUIRE(size != std::strlen(compared) || strncasecmp(name, compared, size) != 0);
    }
    return count<&parser_view::headers>(parser);
}

/// Nothing of an accepted head may look like a second request to the parser behind the filter.
void parse_on(const http_head &head)
{
    struct parser_deleter {
        void operator()(htparser *parser) const
        {
            std::free(parser);
        }
    };
    const std::unique_ptr<htparser, parser_deleter> parser{htparser_new()};
    htparser_init(parser.get(), htp_type_request);
    parser_view seen;
    htparser_set_userdata(parser.get(), &seen);
    htparse_hooks hooks{};
    hooks.on_msg_begin = count<&parser_view::begins>;
    hooks.on_msg_complete = count<&parser_view::ends>;
    hooks.hdr_key = count_header;
    htparser_run(parser.get(), &hooks, head.text.data(), head.text.size());
    FUZZ_REQUIRE(seen.begins <= 1 && seen.ends <= 1);
    FUZZ_REQUIRE(seen.headers <= static_cast<int>(http_head_max_headers));
}

/// Filtering changes nothing any more.
void filter_again(const http_head &head)
{
    if (head.text.size() > http_head_max_size) {
        return; // a slash was added to a head of the full length
    }
    const http_head again = http_head_filter(head.text);
    FUZZ_REQUIRE(again.refusal == nullptr && again.text == head.text && again.lifted.empty());
    FUZZ_REQUIRE(!again.chunked && !again.wants_close && !again.wants_keep_alive);
}

void accepted(std::string_view bytes, const http_head &head)
{
    FUZZ_REQUIRE(head.text.ends_with("\r\n\r\n") || head.text == "\r\n\r\n");
    FUZZ_REQUIRE(head.text.size() <= bytes.size() + 1); // "*" may have got a slash
    FUZZ_REQUIRE(head.text.find('\0') == std::string::npos);
    FUZZ_REQUIRE(std::ranges::all_of(head.lifted, [](const http_head_lifted &lifted) {
        return lifted.value.size() <= http_head_max_lifted;
    }));
    filter_again(head);
    parse_on(head);
}

/// However the bytes come, the head ends at the same place.
std::size_t length_in_pieces(std::string_view bytes, std::size_t piece)
{
    std::size_t scanned = 0;
    for (std::size_t have = 0; have < bytes.size();) {
        have = std::min(have + piece, bytes.size());
        const std::size_t length = http_head_length(bytes.substr(0, have), &scanned);
        if (length != 0) {
            return length;
        }
    }
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view bytes = fuzz_text({data, size});
    std::size_t scanned = 0;
    const std::size_t length = http_head_length(bytes, &scanned);
    FUZZ_REQUIRE(length <= size);
    FUZZ_REQUIRE(length_in_pieces(bytes, 1 + size / 32) == length);
    const allocation_meter meter;
    {
        const http_head head = http_head_filter(bytes.substr(0, length));
        FUZZ_REQUIRE(meter.peak() <= 8 * size + 4096);
        if (head.refusal == nullptr) {
            accepted(bytes.substr(0, length), head);
        }
    }
    FUZZ_REQUIRE(meter.left() == 0);
    return 0;
}
