#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

/// The head of an answer, and how long an answer may be.

inline constexpr std::size_t velmctl_head_limit = 16384;
/// More than twice of what the longest document can be.
inline constexpr std::size_t velmctl_body_limit = 1U << 20;

struct velmctl_head {
    std::size_t size = 0; // with the empty line; 0: not whole yet
    int status = 0;
    std::optional<std::size_t> length = {}; // of the body; none: up to the end of the connection
};

/// Reads the head that `text` begins with, as far as it has come. Gives what is wrong with it, or with
/// the amount that has come; null when nothing is.
[[nodiscard]] const char *velmctl_head_parse(std::string_view text, velmctl_head &head);
