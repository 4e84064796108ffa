#include "tools/status/standards.h"

#include <string_view>

#include "config/settings.h"
#include "logger/keys.h"

namespace {

bool has_standard(std::span<const config_setting> rows, const control_setting &setting)
{
    for (const config_setting &row : rows) {
        if (setting.key == row.key) {
            return setting.value == row.standard;
        }
    }
    return false;
}

bool has_logger_standard(const control_setting &setting)
{
    for (std::size_t i = 0; i < logger_keys().size(); ++i) {
        if (setting.key == std::string{logger_prefix} + logger_keys()[i]) {
            return setting.value == logger_standards()[i];
        }
    }
    return false;
}

} // namespace

bool velmctl_setting_is_standard(const control_setting &setting)
{
    return has_standard(config_file_settings(), setting) || has_logger_standard(setting);
}
