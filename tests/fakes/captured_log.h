#pragma once

#include <string>
#include <vector>

/// What the logger emits while the object lives, one entry a line: "LEVEL category - text".
/// The logger runs at TRACE meanwhile and is reset afterwards. One at a time. ERROR lines also go to
/// standard error, where EXPECT_DEATH looks for the fatal line.
class captured_log {
  public:
    captured_log();
    ~captured_log();
    captured_log(const captured_log &) = delete;
    captured_log &operator=(const captured_log &) = delete;

    [[nodiscard]] const std::vector<std::string> &lines() const;
    /// True when a line is "LEVEL category - text" as given.
    [[nodiscard]] bool has(const std::string &line) const;
    /// True when some line contains the text.
    [[nodiscard]] bool contains(const std::string &text) const;
    /// How many lines contain the text.
    [[nodiscard]] int count(const std::string &text) const;
    void clear();
};
