#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "handles/cjson.h"
#include "tools/control/rounds.h"
#include "tools/explain/names.h"

/// The stories as they come from the daemon.

struct explain_material {
    json_ptr document;
    control_rounds rounds;
    explain_names names;
};

/// The material of a document that was fetched; none, with the reason in `problem`, when it is not as it
/// should be. The names come from the daemon's status, when it gives one.
[[nodiscard]] std::optional<explain_material>
explain_read(json_ptr document, const std::string &path, std::string &problem);
