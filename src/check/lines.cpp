#include "check/lines.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "check/nearest.h"
#include "check/values.h"
#include "config/settings.h"
#include "logger/keys.h"

namespace {

constexpr std::string_view bssids_key = "bssids.list";

const config_setting *find_setting(std::span<const config_setting> rows, std::string_view key)
{
    const auto found = std::ranges::find(rows, key, &config_setting::key);
    return found == rows.end() ? nullptr : &*found;
}

bool is_of_logger(std::string_view key)
{
    return key.starts_with(logger_prefix);
}

std::vector<std::string_view> all_keys(std::vector<std::string> *of_logger)
{
    std::vector<std::string_view> keys;
    for (const config_setting &row : config_file_settings()) {
        keys.emplace_back(row.key);
    }
    for (const char *key : logger_keys()) {
        of_logger->push_back(std::string{logger_prefix} + key);
    }
    keys.insert(keys.end(), of_logger->begin(), of_logger->end());
    return keys;
}

void complain_of_unknown_key(const check_place &place, const std::string &key,
                             check_findings *findings)
{
    if (find_setting(config_platform_settings(), key) != nullptr || key == bssids_key) {
        findings->error(place, "%s is not read from the file: the platform has it", key.c_str());
        return;
    }
    std::vector<std::string> of_logger;
    const std::vector<std::string_view> keys = all_keys(&of_logger);
    findings->error(place, "unknown key %s%s", check_quoted(key).c_str(),
                    check_suggestion(key, keys).c_str());
}

void check_words(const check_place &place, const conffile_line &line, check_findings *findings)
{
    if (!line.behind_key.empty()) {
        findings->error(place, "a key has no blanks: only %s is read",
                        check_quoted(line.key).c_str());
    }
    // A remark behind the value changes nothing.
    if (!line.behind_value.empty() && !line.behind_value.starts_with('#')) {
        findings->error(place, "%s: %s is left out: a value with blanks must be in quotes",
                        line.key.c_str(), check_quoted(line.behind_value).c_str());
    }
    if (line.is_open) {
        findings->warning(place, "%s: a quote is not closed", line.key.c_str());
    }
}

void check_pair(const check_place &place, const conffile_line &line, check_findings *findings)
{
    check_words(place, line, findings);
    const std::string_view key = line.key;
    if (key.empty()) {
        findings->error(place, "no key before \"=\"");
    } else if (is_of_logger(key) &&
               logger_key_of(key.substr(logger_prefix.size())) != logger_key::unknown) {
        check_logger_value(place, line.key.substr(logger_prefix.size()), line.value, findings);
    } else if (const config_setting *row = find_setting(config_file_settings(), key)) {
        check_value(place, *row, line.value, findings);
    } else {
        complain_of_unknown_key(place, line.key, findings);
    }
}

/// Of the logger's keys the first line counts, of the others the last.
void check_repetition(const std::string &path, const conffile_line &line,
                      std::span<const conffile_line> before, check_findings *findings)
{
    const auto earlier = std::ranges::find_if(before, [&line](const conffile_line &other) {
        return other.is_pair && other.key == line.key;
    });
    if (earlier == before.end() || line.key.empty()) {
        return;
    }
    const unsigned counts = is_of_logger(line.key) ? earlier->number : line.number;
    findings->warning({path, line.number}, "%s is in line %u too: line %u counts", line.key.c_str(),
                      earlier->number, counts);
}

void check_end(const std::string &path, const conffile_account &account, check_findings *findings)
{
    const check_place end{path, account.last_line};
    if (account.has_nul) {
        findings->error(end, "a NUL character: nothing behind it is read");
    } else if (account.is_cut) {
        findings->error(end,
                        "the file is longer than 4096 bytes: nothing behind this line is read");
    } else if (account.lost != '\0' && !account.ends_in_comment) {
        findings->error(end, "no newline at the end: the last character %s is left out",
                        check_quoted({&account.lost, 1}).c_str());
    }
}

} // namespace

void check_lines(const std::string &path, const conffile_account &account, check_findings *findings)
{
    const std::span<const conffile_line> lines{account.lines};
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const check_place place{path, lines[i].number};
        if (!lines[i].is_pair) {
            findings->error(place, "no key=value pair: the whole file is left out");
            continue;
        }
        check_pair(place, lines[i], findings);
        check_repetition(path, lines[i], lines.first(i), findings);
    }
    check_end(path, account, findings);
}

check_place check_place_of_key(const std::string &path, const conffile_account &account,
                               std::string_view key)
{
    check_place place{path, 0};
    for (const conffile_line &line : account.lines) {
        const bool counts = place.line == 0 || !is_of_logger(key);
        if (line.is_pair && line.key == key && counts) {
            place.line = line.number;
        }
    }
    return place;
}
