#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "request/paths.h"
#include "request/status.h"

/// What the daemon has done since it started, as numbers that only grow. Whoever does it counts it:
/// one addition, no allocation, no clock. control/metrics.cpp has the names that others see.

enum class metric : std::uint8_t {
    reloads,
    lan_moves,
    searches,
    search_answers,
    password_hashes,
    reports,
    rounds_first, // four, in the order in which story/events.h has the ends of a round
    rounds_last = rounds_first + 3,
    refusals_first, // twelve, in the order of story/checks.h
    refusals_last = refusals_first + 11,
    connections_over_total,
    connections_over_address,
    connections_over_memory,
    connections_over_time,
    connections_without_handshake,
    connections_most, // at a time
    clients_most,     // local ones, at a time
    end,
};

inline constexpr std::size_t metrics_size = static_cast<std::size_t>(metric::end);

namespace metrics_detail {
inline std::array<std::uint64_t, metrics_size> numbers{};
} // namespace metrics_detail

inline void metrics_count(metric which) noexcept
{
    ++metrics_detail::numbers[static_cast<std::size_t>(which)];
}

/// One of a row of them.
inline void metrics_count(metric first, std::size_t which) noexcept
{
    ++metrics_detail::numbers[static_cast<std::size_t>(first) + which];
}

/// Keeps the greatest of what it is told.
inline void metrics_keep_most(metric which, std::size_t now) noexcept
{
    std::uint64_t &most = metrics_detail::numbers[static_cast<std::size_t>(which)];
    most = std::max<std::uint64_t>(most, now);
}

[[nodiscard]] inline std::uint64_t metrics_get(metric first, std::size_t which = 0) noexcept
{
    return metrics_detail::numbers[static_cast<std::size_t>(first) + which];
}

/// How many a row has.
constexpr std::size_t metrics_row(metric first, metric last)
{
    return static_cast<std::size_t>(last) - static_cast<std::size_t>(first) + 1;
}

/// The answers of the HTTPS server by route and status.

/// The routes in the order in which they are counted: "other" is any other path, "none" what was refused
/// before its path was known.
inline constexpr auto metrics_routes = [] {
    std::array<std::string_view, std::size(request_paths) + 2> routes{};
    std::transform(std::begin(request_paths), std::end(request_paths), routes.begin(),
                   [](const request_path_row &row) { return row.path; });
    routes[std::size(request_paths)] = "other";
    routes.back() = "none";
    return routes;
}();

/// The statuses that the server answers with, and 0 for any other.
inline constexpr auto metrics_statuses = [] {
    std::array<int, http_statuses.size() + 1> statuses{};
    std::copy(http_statuses.begin(), http_statuses.end(), statuses.begin());
    return statuses;
}();

/// `path` as the client sent it; empty when it is not known.
void metrics_count_reply(std::string_view path, int status) noexcept;

/// Both are indexes into the lists above.
[[nodiscard]] std::uint64_t metrics_replies(std::size_t route, std::size_t status) noexcept;

/// The pushes by the status that the cloud answered.

struct metrics_push_count {
    int status = 0; // 0: no answer
    std::uint64_t pushes = 0;
};

/// After this many statuses the others are counted together, as status -1.
inline constexpr std::size_t metrics_push_statuses = 16;

/// `status` is the cloud's, 0 for a push without an answer. -1 is taken by the others: it must not be given.
void metrics_count_push(int status) noexcept;

/// Those that have come, in the order of their first coming; behind them such without pushes.
[[nodiscard]] const std::array<metrics_push_count, metrics_push_statuses> &
metrics_pushes() noexcept;
