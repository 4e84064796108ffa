#pragma once

#include <string>

/// What velm-platform-check says: one line for each thing that it looked at.

enum class verdict {
    ok,
    warn, // the daemon runs, but worse than it could
    fail, // the daemon would end, lose pairings or give wrong locations
};

/// Prints "OK   what", or "WARN what: remedy". At once: the next look may end the process.
void report(verdict verdict, const std::string &what, const std::string &remedy = {});

/// No line so far said FAIL.
[[nodiscard]] bool report_is_good();
