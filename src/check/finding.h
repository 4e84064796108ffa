#pragma once

#include <string>
#include <string_view>
#include <vector>

/// What a check of the configuration has found, and where.

/// A file with one of its lines, or the whole of it (line 0), "nvram NAME" or "command line: -x".
struct check_place {
    std::string name;
    unsigned line = 0; // counted from 1
};

enum class check_severity {
    error,   // the daemon would not start, or not do what is written there
    warning, // it would, but the reader may have meant something else
};

struct check_finding {
    check_place place;
    check_severity severity = check_severity::error;
    std::string what;
    bool is_of_network = false; // it is so where this program runs; elsewhere it may be otherwise
};

/// "file:line: what", "file: what", with "warning: " before what is only that. It has no control
/// characters.
[[nodiscard]] std::string check_finding_text(const check_finding &finding);

/// No error is among them.
[[nodiscard]] bool check_is_good(const std::vector<check_finding> &findings);

/// Findings in the order in which they were made.
class check_findings {
  public:
    [[gnu::format(printf, 3, 4)]] void error(const check_place &place, const char *format, ...);
    [[gnu::format(printf, 3, 4)]] void warning(const check_place &place, const char *format, ...);

    /// The last one is.
    void mark_as_of_network();

    /// Those of another list, none of them as more than a warning.
    void add_as_warnings(std::vector<check_finding> others);

    [[nodiscard]] std::vector<check_finding> take();

  private:
    std::vector<check_finding> all_;
};

/// A text from outside in double quotes. What is no printable UTF-8 is a "?", and a long text is cut.
[[nodiscard]] std::string check_quoted(std::string_view text);
