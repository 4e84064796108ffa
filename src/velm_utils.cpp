#include "velm_utils.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string_view>

#include "handles/malloc.h"
#include "logger/fatal.h"
#include "text/hex.h"
#include "text/trim.h"

namespace {

constexpr char log_category[] = "velm_utils";
constexpr std::size_t hex_dump_max = 8192;
constexpr std::size_t hex_dump_width = 3; // "0A "

struct escape_row {
    std::string_view sequence;
    char character;
};
constexpr escape_row escapes[] = {
    {"\\u003d", '='},
    {"\\u002b", '+'},
    {"\\u002f", '/'},
};

bool starts_with_ignoring_case(const char *text, std::string_view prefix)
{
    return strncasecmp(text, prefix.data(), prefix.size()) == 0;
}

const escape_row *escape_find(const char *text)
{
    const auto *const row =
        std::find_if(std::begin(escapes), std::end(escapes), [text](const escape_row &candidate) {
            return starts_with_ignoring_case(text, candidate.sequence);
        });
    return row == std::end(escapes) ? nullptr : row;
}

void append_string(cJSON *array, std::string_view text)
{
    json_ptr item{cJSON_CreateString(std::string{text}.c_str())};
    REQUIRE_MEMORY(item, "item");
    cJSON_AddItemToArray(array, item.release());
}

} // namespace

const char *velm_utils_get_field_value_from_json_object(const cJSON *object, const char *field)
{
    REQUIRE_NOT_NULL(object, "object");
    REQUIRE_NOT_NULL(field, "field");
    return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, field));
}

double velm_utils_get_number_value_from_json_object(const cJSON *object, const char *field)
{
    REQUIRE_NOT_NULL(object, "object");
    REQUIRE_NOT_NULL(field, "field");
    const cJSON *const item = cJSON_GetObjectItemCaseSensitive(object, field);
    return cJSON_IsNumber(item) ? item->valuedouble : 0.0;
}

std::string velm_utils_unescape_html_encoded_base64_chars(const char *html_escaped_base64_string)
{
    REQUIRE_NOT_NULL(html_escaped_base64_string, "html_escaped_base64_string");
    std::string result;
    for (const char *in = html_escaped_base64_string; *in != '\0';) {
        const escape_row *const escape = *in == '\\' ? escape_find(in) : nullptr;
        result.push_back(escape == nullptr ? *in : escape->character);
        in += escape == nullptr ? 1 : escape->sequence.size();
    }
    return result;
}

std::string velm_utils_timestamp_to_string(unsigned long timestamp)
{
    return std::to_string(timestamp);
}

bool velm_utils_parse_timestamp(const char *src, unsigned long *dest)
{
    REQUIRE_NOT_NULL(src, "src");
    REQUIRE_NOT_NULL(dest, "dest");
    errno = 0;
    const unsigned long value = std::strtoul(src, nullptr, 10);
    if (errno != 0) {
        return false;
    }
    *dest = value;
    return true;
}

bool velm_utils_parse_mac_address(const char *src, std::uint8_t *dest)
{
    REQUIRE_NOT_NULL(src, "src");
    REQUIRE_NOT_NULL(dest, "dest");
    velm_mac_address mac{};
    // NOLINTNEXTLINE(cert-err34-c): two digits always fit a byte
    if (std::sscanf(src, "%2hhx:%2hhx:%2hhx:%2hhx:%2hhx:%2hhx", &mac[0], &mac[1], &mac[2], &mac[3],
                    &mac[4], &mac[5]) != static_cast<int>(mac.size())) {
        return false;
    }
    std::copy(mac.begin(), mac.end(), dest);
    return true;
}

bool velm_utils_parse_ip_address(const char *src, std::uint8_t *dest)
{
    REQUIRE_NOT_NULL(src, "src");
    REQUIRE_NOT_NULL(dest, "dest");
    return inet_pton(AF_INET, src, dest) == 1;
}

std::optional<std::string> velm_utils_print_ip_address(const std::uint8_t *ip_addr)
{
    REQUIRE_NOT_NULL(ip_addr, "ip_addr");
    std::array<char, INET_ADDRSTRLEN> text{};
    if (inet_ntop(AF_INET, ip_addr, text.data(), text.size()) == nullptr) {
        return std::nullopt;
    }
    return text.data();
}

velm_device_type velm_utils_device_type_from_string(const char *device_type)
{
    REQUIRE_NOT_NULL(device_type, "device_type");
    if (starts_with_ignoring_case(device_type, "iOS")) {
        return velm_device_type::ios;
    }
    if (starts_with_ignoring_case(device_type, "Android")) {
        return velm_device_type::android;
    }
    return velm_device_type::unknown;
}

json_ptr velm_split_string(const char *string, const char *separator)
{
    REQUIRE_NOT_NULL(string, "string");
    REQUIRE_NOT_NULL(separator, "separator");
    json_ptr array{cJSON_CreateArray()};
    REQUIRE_MEMORY(array, "array");
    std::string_view rest{string};
    while (!rest.empty()) {
        const std::string_view field = rest.substr(0, rest.find_first_of(separator));
        rest.remove_prefix(std::min(rest.size(), field.size() + 1));
        const std::string_view piece = trim(field, white_space);
        if (!piece.empty()) {
            append_string(array.get(), piece);
        }
    }
    return array;
}

void velm_utils_log_hex(const void *bytes, std::size_t count)
{
    if (bytes == nullptr || count == 0 || !common_logger_writes(log_category, LOG_LEVEL_TRACE)) {
        return;
    }
    if (count > hex_dump_max) {
        LOG_TRACE("(buffer too long)");
        return;
    }
    const auto text = try_make_plain<char>(hex_dump_width * count + 1);
    if (text == nullptr) {
        LOG_TRACE("(no memory)");
        return;
    }
    char *out = text.get();
    for (const std::uint8_t byte : std::span{static_cast<const std::uint8_t *>(bytes), count}) {
        const auto digits = hex_digits(byte, hex_letters::upper);
        out = std::copy(digits.begin(), digits.end(), out);
        *out++ = ' ';
    }
    LOG_TRACE("%.*s", static_cast<int>(hex_dump_width * count), text.get());
}
