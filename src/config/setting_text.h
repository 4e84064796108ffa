#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <string>
#include <variant>

#include "config/settings.h"
#include "text/or_empty.h"

/// Settings as the status document shows them. `velmctl reload` writes the new ones in the same way: a setting
/// whose text is the same has not changed. The functions are inline: the daemon calls each at one place, and
/// a file of their own makes it larger.

inline std::string config_text_of(bool value)
{
    return value ? config_yes : config_no;
}

inline std::string config_text_of(std::uint16_t value)
{
    return std::to_string(value);
}

inline std::string config_text_of(const char *value)
{
    return value;
}

/// As it would be written in the file.
[[nodiscard]] inline std::string config_setting_text(const velm_config &config,
                                                     const config_setting &setting)
{
    return std::visit([&config](auto field) { return config_text_of(config.*field); },
                      setting.field);
}

/// The BSSIDs of an array of strings, joined by commas. The array may be null.
[[nodiscard]] inline std::string config_bssids_text(const cJSON *bssids)
{
    std::string text;
    const cJSON *bssid = nullptr;
    cJSON_ArrayForEach(bssid, bssids)
    {
        text += text.empty() ? "" : ",";
        text += text_or_empty(cJSON_GetStringValue(bssid));
    }
    return text;
}
