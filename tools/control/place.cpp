#include "tools/control/place.h"

#include <algorithm>
#include <string_view>

#include "conffile/conffile.h"
#include "config/settings.h"

namespace {

constexpr char default_config_path[] = "/etc/afc/velmd/velmd.conf";
constexpr char key_of_socket[] = "control.sock";
constexpr char key_of_pid_file[] = "process.pidfile";
constexpr char name_of_socket[] = "velmd.control.sock";

std::string default_pid_file()
{
    const auto rows = config_file_settings();
    const auto row = std::find_if(rows.begin(), rows.end(), [](const config_setting &one) {
        return std::string_view{one.key} == key_of_pid_file;
    });
    return row == rows.end() ? "" : row->standard;
}

/// The daemon's directory is "/" when it uses the path.
std::string beside(const std::string &pid_file)
{
    const std::string folder = pid_file.substr(0, pid_file.rfind('/') + 1);
    return (folder.starts_with('/') ? folder : "/" + folder) + name_of_socket;
}

control_place place_by_file(const ConfigFile *file)
{
    const char *const said = file == nullptr ? nullptr : conffile_get_value(file, key_of_socket);
    if (said != nullptr) {
        return {said,
                *said == '\0' ? "control.sock is empty: the daemon has no control socket" : ""};
    }
    const char *const pid_file =
        file == nullptr ? nullptr : conffile_get_value(file, key_of_pid_file);
    const std::string path = pid_file == nullptr ? default_pid_file() : pid_file;
    if (path.empty()) {
        return {"", "process.pidfile is empty, and control.sock is not set"};
    }
    return {beside(path), ""};
}

} // namespace

control_place control_place_find(const std::optional<std::string> &given,
                                 const std::optional<std::string> &config)
{
    if (given.has_value()) {
        return {*given, given->empty() ? "--control needs a path" : ""};
    }
    const std::string path = config.value_or(default_config_path);
    const conffile_ptr file = path.empty() ? nullptr : conffile_parse(path.c_str());
    const bool is_missing = file == nullptr && !path.empty() && conffile_bad_line() == 0;
    if (is_missing && config.has_value()) {
        return {"", path + " cannot be read"};
    }
    return place_by_file(
        file.get()); // a file with a bad line is as good as none, for the daemon too
}
