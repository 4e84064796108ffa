#pragma once

#include <string>

/// Stands in for what the logger writes to: while one lives, standard output, syslog and files that
/// are appended to get nothing, so that a configuration out of a fuzzer can name any file.
class captured_output {
  public:
    captured_output();
    ~captured_output();
    captured_output(const captured_output &) = delete;
    captured_output &operator=(const captured_output &) = delete;

    /// The file that was to be appended to last.
    [[nodiscard]] const std::string &file_name() const;
    /// Whether syslog is open. It borrows the ident that it was opened with, and reads it at each
    /// line; so does this stand-in.
    [[nodiscard]] bool syslog_is_open() const;
};
