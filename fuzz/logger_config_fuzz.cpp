#include <algorithm>
#include <cstring>
#include <string>

#include "allocation_meter.h"
#include "captured_output.h"
#include "fuzz_target.h"
#include "logger/common_logger.h"

/// A configuration up to a NUL, a message behind it.

namespace {

std::string last_line;

void keep_line(const char *, int, const char *text, const char *, int)
{
    last_line = text;
}

constexpr common_logger_observer observer{nullptr, nullptr, keep_line, nullptr};

/// One line that steers no terminal: no control character, of one byte or of two.
void is_one_line(const std::string &line)
{
    FUZZ_REQUIRE(!line.empty() && line.size() <= 7999 && line.back() == '\n');
    for (std::size_t i = 0; i + 1 < line.size(); ++i) {
        const auto c = static_cast<std::uint8_t>(line[i]);
        const auto next = static_cast<std::uint8_t>(line[i + 1]);
        FUZZ_REQUIRE(c >= 0x20 && c != 0x7f);
        FUZZ_REQUIRE(c != 0xc2 || next < 0x80 || next > 0x9f);
    }
}

bool logs(int level, const char *message)
{
    last_line.clear();
    common_logger_log("fuzz", level, "file.cpp", 1, "%s - %s", "function", message);
    if (last_line.empty()) {
        return false;
    }
    is_one_line(last_line);
    FUZZ_REQUIRE(last_line.find(" fuzz - function - ") != std::string::npos);
    return true;
}

void reset()
{
    common_logger_configure_from_string(
        "enabled=no:level=debug:stdout=no:lineandfile=no:file.name=:syslog.ident=velmd");
}

void run(const std::string &configuration, const std::string &message)
{
    common_logger_configure_from_string(configuration.c_str());
    bool logged = false;
    for (int level = LOG_LEVEL_TRACE; level <= LOG_LEVEL_ERROR; ++level) {
        const bool logs_this = logs(level, message.c_str());
        FUZZ_REQUIRE(common_logger_is_enabled() || !logs_this);
        FUZZ_REQUIRE(logs_this || !logged); // what is let through at a level is above it too
        logged = logged || logs_this;
    }
    common_logger_reset();
    FUZZ_REQUIRE(!common_logger_is_enabled() && !logs(LOG_LEVEL_ERROR, message.c_str()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const captured_output quiet;
    fuzz_input in{data, size};
    const std::string configuration{in.text_until('\0')};
    const std::string message{fuzz_text(in.rest())};
    common_logger_set_observer(&observer);
    reset();
    run("enabled=yes", ""); // what the time functions keep
    {
        const allocation_meter meter;
        run(configuration, message);
        FUZZ_REQUIRE(quiet.file_name().size() <= 255 && !quiet.syslog_is_open());
        // A category of 40 bytes for each "category.=:" of 11.
        FUZZ_REQUIRE(meter.peak() <= 24 * size + 40 * 1024);
    }
    reset();
    common_logger_set_observer(nullptr);
    return 0;
}
