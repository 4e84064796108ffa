#include "fakes/captured_log.h"

#include <algorithm>
#include <cstdio>

#include "logger/common_logger.h"

namespace {

std::vector<std::string> captured;

void capture_line(const char *, int level, const char *text, const char *, int)
{
    // "2026-01-01 00:00:00.000 LEVEL category - text\n": the level is right-aligned in 5 columns.
    std::string line{text};
    line.erase(0, 24);
    line.erase(0, line.find_first_not_of(' '));
    while (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    if (level == LOG_LEVEL_ERROR) {
        std::fprintf(stderr, "%s\n", line.c_str());
    }
    captured.push_back(line);
}

constexpr common_logger_observer observer{nullptr, nullptr, capture_line, nullptr};

} // namespace

captured_log::captured_log()
{
    captured.clear();
    common_logger_configure_from_string("enabled=yes:level=trace");
    common_logger_set_observer(&observer);
}

captured_log::~captured_log()
{
    common_logger_set_observer(nullptr);
    common_logger_configure_from_string("enabled=no:level=debug");
}

const std::vector<std::string> &captured_log::lines() const
{
    return captured;
}

bool captured_log::has(const std::string &line) const
{
    return std::find(captured.begin(), captured.end(), line) != captured.end();
}

bool captured_log::contains(const std::string &text) const
{
    return count(text) > 0;
}

int captured_log::count(const std::string &text) const
{
    return static_cast<int>(
        std::count_if(captured.begin(), captured.end(), [&text](const std::string &line) {
            return line.find(text) != std::string::npos;
        }));
}

void captured_log::clear()
{
    captured.clear();
}
