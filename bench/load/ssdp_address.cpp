#include "ssdp_address.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstdint>

std::optional<sockaddr_in> ssdp_address_parse(const std::string &text)
{
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    std::uint16_t port = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, port);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (error != std::errc{} || stop != end ||
        inet_pton(AF_INET, text.substr(0, colon).c_str(), &address.sin_addr) != 1) {
        return std::nullopt;
    }
    return address;
}
