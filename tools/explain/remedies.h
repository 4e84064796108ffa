#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

/// What to do about each reason for which no location came. Every cause and every check of the daemon has
/// a row; a test compares them with the daemon's own lists.

struct explain_remedy {
    const char *code;   // as the daemon names it
    const char *what;   // what refused, for a check; what is wrong, for a cause
    const char *remedy; // one or two sentences; empty: nothing need be done
};

/// For the causes of a round and for the reasons for which no push run was begun.
[[nodiscard]] std::span<const explain_remedy> explain_causes();

/// For what refuses a visit.
[[nodiscard]] std::span<const explain_remedy> explain_checks();

/// Null for a code that this program does not know.
[[nodiscard]] const explain_remedy *explain_cause(const std::string &code);
[[nodiscard]] const explain_remedy *explain_check(const std::string &code);

/// A phone whose proof came too late: nothing is wrong with the proof.
[[nodiscard]] bool explain_is_old_challenge(const std::string &why);

/// What to do about a visit that `check` refused, with the daemon's reason; empty when it is not known.
[[nodiscard]] const char *explain_check_remedy(const std::string &check, const std::string &why);

/// What to do about a push that the push service did not take; `status` is of HTTP, `error` the daemon's
/// words, which tell after a 404 whether the phone is paired still.
[[nodiscard]] const char *explain_push_remedy(std::optional<std::int64_t> status,
                                              const std::string &error = "");
