#include "check/values.h"

#include <strings.h>
#include <sys/un.h>

#include <string_view>

#include "check/categories.h"
#include "check/nearest.h"
#include "config/value.h"
#include "logger/keys.h"
#include "logger/log_file.h"
#include "text/utf8.h"

namespace {

constexpr char levels[] = "trace, debug, info, warn, error";

bool is_key(const config_setting &row, std::string_view key)
{
    return key == row.key;
}

/// What is written well and may still not be meant.
void check_meaning(const check_place &place, const config_setting &row, const std::string &value,
                   check_findings *findings)
{
    if (is_key(row, "http.server.port") && value == "0") {
        findings->warning(place, "%s: with 0 there is no HTTP server", row.key);
    } else if (is_key(row, "pairings.limit") && value == "0") {
        findings->warning(place, "%s: with 0 no phone can be paired", row.key);
    } else if (is_key(row, "app.android.integrity.method") &&
               strcasecmp(value.c_str(), "remote") != 0 && value != "local") {
        findings->warning(place, "%s: %s is neither remote nor local: it counts as local", row.key,
                          check_quoted(value).c_str());
    } else if (is_key(row, "app.ios.appid") && value.find('.') == std::string::npos) {
        findings->warning(place, "%s: %s is no team id, point and bundle id", row.key,
                          check_quoted(value).c_str());
    } else if (is_key(row, "location.policy.ipc.sock") &&
               value.size() >= sizeof(sockaddr_un{}.sun_path)) {
        findings->error(place, "%s: %zu characters: a socket's path has at most %zu", row.key,
                        value.size(), sizeof(sockaddr_un{}.sun_path) - 1);
    }
}

void check_truth(const check_place &place, const std::string &key, const std::string &value,
                 check_findings *findings)
{
    if (!logger_truth(value)) {
        findings->error(place, "logger.%s: %s is neither yes nor no: it counts as no", key.c_str(),
                        check_quoted(value).c_str());
    }
}

void check_category(const check_place &place, const std::string &key, check_findings *findings)
{
    const std::string_view name = std::string_view{key}.substr(logger_category_prefix.size());
    for (const std::string_view known : check_log_categories()) {
        if (known == name) {
            return;
        }
    }
    findings->error(place, "logger.category: unknown category %s%s", check_quoted(name).c_str(),
                    check_suggestion(name, check_log_categories()).c_str());
}

} // namespace

void check_value(const check_place &place, const config_setting &row, const std::string &value,
                 check_findings *findings)
{
    const std::string quoted = check_quoted(value);
    switch (config_value_fit(row.field, value)) {
    case config_fit::no_truth:
        findings->error(place, "%s: %s is neither yes nor no: it counts as no", row.key,
                        quoted.c_str());
        return;
    case config_fit::no_number:
    case config_fit::out_of_range:
        findings->error(place, "%s: %s is no number from 0 to 65535", row.key, quoted.c_str());
        return;
    case config_fit::too_long:
        findings->error(place, "%s: %zu characters: it is cut to %zu", row.key, value.size(),
                        config_text_max(row.field));
        return;
    case config_fit::fits:
        break;
    }
    if (!is_utf8(value)) {
        findings->error(place, "%s: %s is no UTF-8", row.key, quoted.c_str());
        return;
    }
    check_meaning(place, row, value, findings);
}

void check_level(const check_place &place, const std::string &name, const std::string &value,
                 check_findings *findings)
{
    if (!logger_level(value.c_str())) {
        findings->error(place, "%s%s is no level (%s): nothing is logged", name.c_str(),
                        check_quoted(value).c_str(), levels);
    }
}

void check_logger_value(const check_place &place, const std::string &key, const std::string &value,
                        check_findings *findings)
{
    switch (logger_key_of(key)) {
    case logger_key::enabled:
    case logger_key::to_stdout:
    case logger_key::to_syslog:
    case logger_key::to_file:
    case logger_key::line_and_file:
        check_truth(place, key, value, findings);
        break;
    case logger_key::category:
        check_category(place, key, findings);
        [[fallthrough]];
    case logger_key::level:
        check_level(place, "logger." + key + ": ", value, findings);
        break;
    case logger_key::file_max_size:
        if (!logger_size(value)) {
            findings->error(place, "logger.%s: %s is no number: it counts as not given",
                            key.c_str(), check_quoted(value).c_str());
        }
        break;
    case logger_key::file_name:
        if (value.size() > log_file_name_max) {
            findings->error(place, "logger.%s: %zu characters: it is cut to %zu", key.c_str(),
                            value.size(), log_file_name_max);
        }
        break;
    case logger_key::syslog_ident:
    case logger_key::unknown:
        break;
    }
}
