#pragma once

#include <span>
#include <string_view>

/// Every category that a log line can have, for the keys "logger.category.NAME".
[[nodiscard]] std::span<const std::string_view> check_log_categories();
