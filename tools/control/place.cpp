#include "tools/control/place.h"

#include <cerrno>

#include "conffile/conffile.h"
#include "velm_config.h"
#include "velm_nvram_config.h"

namespace {

/// The settings that the daemon has by its file. A file with a bad line is as good as none, for it too.
struct file_settings {
    velm_config config{};
    bool is_missing = false;
};

file_settings read_settings(const std::optional<std::string> &config)
{
    file_settings settings;
    velm_config_set_defaults(&settings.config);
    const std::string path = config.value_or(control_default_config);
    if (path.empty()) {
        return settings;
    }
    const conffile_ptr file = conffile_parse(path.c_str());
    settings.is_missing = file == nullptr && conffile_bad_line() == 0;
    if (file != nullptr) {
        errno = 0; // a stale one would keep the numbers from being stored
        velm_config_load_pairs(&settings.config, file);
    }
    return settings;
}

/// A daemon that detaches changes to "/".
std::string as_opened(const velm_config &config, const char *path)
{
    const bool is_moved = config.daemonize && *path != '\0' && *path != '/';
    return is_moved ? std::string{"/"} + path : path;
}

} // namespace

control_place control_place_find(const std::optional<std::string> &given,
                                 const std::optional<std::string> &config)
{
    if (given.has_value()) {
        return {*given, given->empty() ? "--control needs a path" : ""};
    }
    const file_settings settings = read_settings(config);
    if (settings.is_missing && config.has_value()) {
        return {"", *config + " cannot be read"};
    }
    const std::string path = as_opened(settings.config, settings.config.control_sock);
    return {path, path.empty() ? "the daemon has no control socket: control.sock is empty" : ""};
}

control_place control_location_place_find(const std::optional<std::string> &config)
{
    file_settings settings = read_settings(config);
    if (settings.is_missing && config.has_value()) {
        return {"", *config + " cannot be read"};
    }
    velm_nvram_config_load(&settings.config);
    const std::string path = as_opened(settings.config, settings.config.location_policy_ipc_sock);
    return {path, path.empty() ? "location.policy.ipc.sock is empty: no client can ask" : ""};
}

std::string control_pid_file_of(const std::optional<std::string> &config)
{
    const std::string path = read_settings(config).config.pid_file_path;
    return path.empty() || path.starts_with('/') ? path : '/' + path;
}
