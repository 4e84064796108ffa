#pragma once

#include <string>

#include "handles/cjson.h"

/// A document of the control socket, before its members are read.

inline constexpr int control_version = 1;

/// The tree of `text`; null, with the reason in `problem`, when it is no JSON object of our version.
[[nodiscard]] json_ptr control_document_parse(const std::string &text, std::string &problem);

/// One line of JSON, with its end, that is fit for any output.
[[nodiscard]] std::string control_document_print(const cJSON *document);
