#pragma once

#include <span>
#include <string>
#include <string_view>

/// The name that a text was probably meant to be: few letters are wrong, missing, too many or exchanged,
/// or in the wrong case. Empty when none is near.
[[nodiscard]] std::string_view check_nearest(std::string_view text,
                                             std::span<const std::string_view> names);

/// ": did you mean "http.server.port"?", or nothing when no name is near.
[[nodiscard]] std::string check_suggestion(std::string_view text,
                                           std::span<const std::string_view> names);
