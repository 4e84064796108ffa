#include <strings.h>

#include <array>
#include <cstring>
#include <string>

#include "allocation_meter.h"
#include "fuzz_target.h"
#include "ssdp/message.h"

/// A datagram from the LAN.

namespace {

/// The lines of the text, each ended by CR LF but perhaps the last.
template <typename Line>
bool any_line(std::string_view text, Line line)
{
    while (!text.empty()) {
        const std::size_t end = std::min(text.find("\r\n"), text.size());
        if (line(text.substr(0, end))) {
            return true;
        }
        text.remove_prefix(std::min(end + 2, text.size()));
    }
    return false;
}

/// "ST:", blanks, our device type, in any case; the rule once more.
bool names_us(std::string_view line)
{
    const std::size_t colon = line.find(':');
    if (colon != 2 || strncasecmp(line.data(), "ST", 2) != 0) {
        return false;
    }
    line.remove_prefix(3);
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    constexpr std::string_view ours = velm_ssdp_device_type;
    return line.size() == ours.size() && strncasecmp(line.data(), ours.data(), ours.size()) == 0;
}

bool rule(std::string_view text)
{
    constexpr std::string_view search = "M-SEARCH * HTTP/1.1\r\n";
    return text.starts_with(search) && any_line(text.substr(search.size()), names_us);
}

void reply_has_five_headers()
{
    std::array<char, velm_ssdp_reply_size> reply{};
    const velm_ssdp_reply_fields fields{0, "192.168.1.1", 8080, "uuid"};
    const std::size_t length = velm_ssdp_message_write_reply(reply, fields);
    FUZZ_REQUIRE(length < reply.size() && length == std::strlen(reply.data()));
    FUZZ_REQUIRE(std::string_view(reply.data(), length).ends_with("\r\n\r\n"));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text{fuzz_input{data, size}.text_until('\0')};
    std::string cut = text;
    const allocation_meter meter;
    const bool is_search = velm_ssdp_message_is_search(cut.data());
    FUZZ_REQUIRE(meter.peak() == 0);
    FUZZ_REQUIRE(is_search == rule(text));
    if (is_search) {
        reply_has_five_headers();
    }
    return 0;
}
