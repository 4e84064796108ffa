#pragma once

#include <string_view>

/// What isspace takes for white space.
inline constexpr std::string_view white_space = " \t\n\v\f\r";

/// The text without what stands of `blanks` at either end.
[[nodiscard]] std::string_view trim(std::string_view text, std::string_view blanks);
