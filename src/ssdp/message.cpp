#include "ssdp/message.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

#include "handles/exhaustion.h"
#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "velm_ssdp_server";
constexpr std::string_view search_line = "M-SEARCH * HTTP/1.1";
constexpr char server_name[] = "VELMD";
// clang-format off
constexpr char reply_format[] =
    "HTTP/1.1 200 OK\r\nDATE: %s\r\nLOCATION: https://%s:%u/info\r\nSERVER: %s\r\nST: %s\r\nUSN: uuid:%s::%s\r\n\r\n";
// clang-format on

enum class search_state : int { request_line = 0, headers = 1 };

/// Cuts the first line off the text; `rest` goes on behind its CR LF, or is empty. The length is
/// known, so that no search runs to the end of a long text for each of its lines.
char *line_cut(std::span<char> &rest)
{
    char *const line = rest.data();
    const std::size_t end = std::string_view{line, rest.size()}.find("\r\n");
    if (end == std::string_view::npos) {
        rest = {};
    } else {
        rest[end] = '\0';
        rest = rest.subspan(end + 2);
    }
    return line;
}

bool header_asks_for_us(char *line)
{
    char *const colon = std::strchr(line, ':');
    if (colon == nullptr) {
        return false;
    }
    const char *const value = colon + 1 + std::strspn(colon + 1, " \t");
    if (*value == '\0') {
        return false;
    }
    *colon = '\0';
    // The stray parenthesis stays: the line is an interface.
    LOG_TRACE("processing header name='%s', value='%s')", line, value);
    return strcasecmp(line, "ST") == 0 && strcasecmp(value, velm_ssdp_device_type) == 0;
}

/// localtime, not localtime_r: it follows a time zone that changes while we run. For that it allocates
/// under a lock, for which a log line would wait.
const std::tm *local_time(std::time_t time)
{
    const exhaustion_met_at_end not_under_the_lock;
    return std::localtime(&time);
}

} // namespace

bool velm_ssdp_message_is_search(char *text)
{
    std::span<char> rest{text, std::strlen(text)};
    search_state state = search_state::request_line;
    while (!rest.empty()) {
        char *const line = line_cut(rest);
        LOG_TRACE("processing line: %s (state %d)", line, static_cast<int>(state));
        if (state == search_state::request_line) {
            if (line != search_line) {
                return false;
            }
            state = search_state::headers;
        } else if (header_asks_for_us(line)) {
            return true;
        }
    }
    return false;
}

std::size_t velm_ssdp_message_write_reply(std::span<char, velm_ssdp_reply_size> reply,
                                          const velm_ssdp_reply_fields &fields)
{
    std::array<char, 80> time_text{};
    const std::tm *const local = local_time(fields.time);
    if (local != nullptr) {
        std::strftime(time_text.data(), time_text.size(), "%Y-%m-%d.%X", local);
    }
    const int length = std::snprintf(reply.data(), reply.size(), reply_format, time_text.data(),
                                     fields.address, unsigned{fields.port}, server_name,
                                     velm_ssdp_device_type, fields.uuid, velm_ssdp_device_type);
    return std::min(static_cast<std::size_t>(std::max(length, 0)), reply.size() - 1);
}
