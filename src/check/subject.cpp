#include "check/subject.h"

#include <algorithm>

#include "check/lines.h"
#include "config/settings.h"
#include "config/value.h"
#include "velm_nvram_config.h"

namespace {

bool is_from_nvram(const config_setting &row)
{
    const std::size_t longest = config_text_max(row.field);
    const nvram_fit fit = longest != 0 ? velm_nvram_config_fit_text(row.nvram, longest + 1)
                                       : velm_nvram_config_fit_number(row.nvram, nvram_number_min);
    return fit == nvram_fit::fits;
}

} // namespace

check_place check_place_of(const check_subject &subject, std::string_view key)
{
    const auto rows = config_file_settings();
    const auto row = std::ranges::find(rows, key, &config_setting::key);
    if (row != rows.end() && row->nvram != nullptr && is_from_nvram(*row)) {
        return {std::string{"nvram "} + row->nvram, 0};
    }
    return check_place_of_key(subject.config_path, subject.file, key);
}

std::string check_path_of(const check_subject &subject, const char *path)
{
    const bool is_moved = subject.config.daemonize && *path != '/';
    return is_moved ? std::string{"/"} + path : path;
}
