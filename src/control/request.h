#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

/// The head of a request on the control socket: the request line of HTTP/1, header lines that are only
/// looked at for their form, and an empty line. A line ends with LF, before which a CR may stand.

/// A longer head is refused. What curl and scrapers send has 100 to 300 bytes.
inline constexpr std::size_t control_head_limit = 4096;

struct control_request {
    bool is_get = false;
    std::string_view path = {};  // as it was sent, up to the first "?"
    std::string_view query = {}; // what is behind the "?"; empty without one
};

enum class control_head_state {
    incomplete, // more may make it whole
    whole,
    bad, // whatever follows
};

struct control_head {
    control_head_state state;
    control_request request = {}; // when it is whole; its texts lie in the one that was read
};

/// Reads what has come of a connection so far. What follows a whole head is not looked at.
[[nodiscard]] control_head control_request_read(std::string_view text);

/// What "?wait=S&after=N" asks for, each of them at most once.
struct control_wait {
    std::uint64_t seconds = 0; // 0: no "wait"
    std::optional<std::uint64_t> after = std::nullopt;
};

inline constexpr std::uint64_t control_wait_limit = 60; // seconds

/// Nothing when the query has anything else in it, or a "wait" that is not from 1 to 60. The empty query
/// waits for nothing.
[[nodiscard]] std::optional<control_wait> control_wait_read(std::string_view query);
