#pragma once

#include <string>

/// True when both paths name one file, also by way of links. A path that names nothing equals itself only.
[[nodiscard]] bool control_is_same_file(const std::string &one, const std::string &other);
