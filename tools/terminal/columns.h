#pragma once

#include <span>
#include <string>
#include <vector>

/// Rows of texts that are fit for a terminal, in columns as wide as their widest text. Two blanks part
/// them, and `indent` blanks stand before each row. Rows may have different lengths.
[[nodiscard]] std::string velmctl_columns(std::span<const std::vector<std::string>> rows,
                                          std::size_t indent = 0);
