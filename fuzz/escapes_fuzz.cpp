#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <string>

#include "allocation_meter.h"
#include "fuzz_target.h"
#include "handles/cjson.h"
#include "velm_utils.h"

namespace {

/// The three escapes and nothing else, by another method: search and replace from the left.
std::string unescaped(const std::string &text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::string six = text.substr(i, 6);
        for (char &c : six) {
            c = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
        }
        const char found = six == "\\u003d"   ? '='
                           : six == "\\u002b" ? '+'
                           : six == "\\u002f" ? '/'
                                              : '\0';
        out += found != '\0' ? found : text[i];
        i += found != '\0' ? 5 : 0;
    }
    return out;
}

void escapes(const std::string &text)
{
    const std::string result = velm_utils_unescape_html_encoded_base64_chars(text.c_str());
    FUZZ_REQUIRE(result.size() <= text.size());
    FUZZ_REQUIRE(result == unescaped(text));
}

void mac_address(const std::string &text)
{
    const velm_mac_address untouched{9, 9, 9, 9, 9, 9};
    velm_mac_address mac = untouched;
    if (!velm_utils_parse_mac_address(text.c_str(), mac.data())) {
        FUZZ_REQUIRE(mac == untouched);
        return;
    }
    std::array<char, 18> again{};
    std::snprintf(again.data(), again.size(), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1],
                  mac[2], mac[3], mac[4], mac[5]);
    velm_mac_address same{};
    FUZZ_REQUIRE(velm_utils_parse_mac_address(again.data(), same.data()) && same == mac);
}

void ip_address(const std::string &text)
{
    std::array<std::uint8_t, 4> ip{1, 2, 3, 4};
    if (!velm_utils_parse_ip_address(text.c_str(), ip.data())) {
        return;
    }
    const auto again = velm_utils_print_ip_address(ip.data());
    FUZZ_REQUIRE(again.has_value() ? *again == text : text.size() == 15);
}

void timestamp(const std::string &text)
{
    unsigned long value = 77;
    if (!velm_utils_parse_timestamp(text.c_str(), &value)) {
        FUZZ_REQUIRE(value == 77);
        return;
    }
    unsigned long same = 0;
    FUZZ_REQUIRE(velm_utils_parse_timestamp(velm_utils_timestamp_to_string(value).c_str(), &same));
    FUZZ_REQUIRE(same == value);
}

/// What is split has no separator left, no white space around it and is never empty.
void split(const std::string &text)
{
    const json_ptr pieces = velm_split_string(text.c_str(), ",;");
    const cJSON *piece = nullptr;
    std::string joined;
    cJSON_ArrayForEach(piece, pieces.get())
    {
        const std::string one{cJSON_GetStringValue(piece)};
        FUZZ_REQUIRE(!one.empty() && one.find_first_of(",;") == std::string::npos);
        FUZZ_REQUIRE(std::strchr(" \t\n\v\f\r", one.front()) == nullptr);
        FUZZ_REQUIRE(std::strchr(" \t\n\v\f\r", one.back()) == nullptr);
        joined += one + ",";
    }
    const json_ptr again = velm_split_string(joined.c_str(), ",;");
    FUZZ_REQUIRE(cJSON_Compare(pieces.get(), again.get(), true) != 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text{fuzz_input{data, size}.text_until('\0')};
    const allocation_meter meter;
    escapes(text);
    mac_address(text);
    ip_address(text);
    timestamp(text);
    split(text);
    // Two lists, with a node of 64 bytes and a text for every two bytes of "a,".
    FUZZ_REQUIRE(meter.peak() <= 128 * size + 1024);
    FUZZ_REQUIRE(meter.left() == 0);
    return 0;
}
