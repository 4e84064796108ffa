#include "check/finding.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "text/utf8.h"

namespace {

constexpr std::size_t what_size = 1024;
constexpr std::size_t quoted_max = 100;

[[gnu::format(printf, 1, 0)]] std::string formatted(const char *format, va_list arguments)
{
    std::array<char, what_size> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    return text.data();
}

bool is_control(std::string_view character)
{
    const auto first = static_cast<unsigned char>(character.front());
    const bool is_c1 = first == 0xc2 && static_cast<unsigned char>(character[1]) < 0xa0;
    return first < 0x20 || first == 0x7f || is_c1;
}

/// Nothing from outside may end the line or steer the terminal.
std::string printable(std::string_view text)
{
    std::string shown;
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        const std::string_view character = text.substr(0, std::max<std::size_t>(length, 1));
        shown += length == 0 || is_control(character) ? "?" : character;
        text.remove_prefix(character.size());
    }
    return shown;
}

} // namespace

std::string check_finding_text(const check_finding &finding)
{
    std::string text = printable(finding.place.name);
    if (finding.place.line != 0) {
        text += ':' + std::to_string(finding.place.line);
    }
    text += finding.severity == check_severity::warning ? ": warning: " : ": ";
    return text + printable(finding.what);
}

bool check_is_good(const std::vector<check_finding> &findings)
{
    return std::ranges::none_of(findings, [](const check_finding &finding) {
        return finding.severity == check_severity::error;
    });
}

void check_findings::error(const check_place &place, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    all_.push_back({place, check_severity::error, formatted(format, arguments), false});
    va_end(arguments);
}

void check_findings::warning(const check_place &place, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    all_.push_back({place, check_severity::warning, formatted(format, arguments), false});
    va_end(arguments);
}

void check_findings::mark_as_of_network()
{
    all_.back().is_of_network = true;
}

void check_findings::add_as_warnings(std::vector<check_finding> others)
{
    for (check_finding &other : others) {
        other.severity = check_severity::warning;
        all_.push_back(std::move(other));
    }
}

std::vector<check_finding> check_findings::take()
{
    return std::exchange(all_, {});
}

std::string check_quoted(std::string_view text)
{
    return '"' + printable(text.substr(0, quoted_max)) +
           (text.size() > quoted_max ? "...\"" : "\"");
}
