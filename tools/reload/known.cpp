#include "tools/reload/known.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string_view>

#include "config/setting_text.h"
#include "config/settings.h"
#include "handles/cjson.h"
#include "logger/keys.h"
#include "velm_config.h"
#include "velm_nvram_config.h"
#include "velm_sys_params.h"

namespace {

constexpr std::string_view certificate_key = "http.server.cert.path";
constexpr std::string_view private_key_key = "http.server.key.path";

const control_setting *setting_of(const control_status &status, std::string_view key)
{
    const auto found = std::ranges::find(status.settings, key, &control_setting::key);
    return found == status.settings.end() ? nullptr : &*found;
}

const char *other_value(const reload_view &view, const std::string &key)
{
    return cJSON_GetStringValue(
        cJSON_GetObjectItemCaseSensitive(view.config.other_pairs.get(), key.c_str()));
}

/// What the daemon would have; nothing for a key that is none of the table.
std::optional<std::string> new_value(const reload_view &view, std::string_view key)
{
    for (const config_setting &row : config_file_settings()) {
        if (key == row.key) {
            return config_setting_text(view.config, row);
        }
    }
    return std::nullopt;
}

bool has_value_in_use(const reload_view &view, const std::string &key)
{
    const control_setting *const in_use = setting_of(view.status, key);
    const char *const other = other_value(view, key);
    const std::optional<std::string> value =
        other != nullptr ? std::optional<std::string>{other} : new_value(view, key);
    return in_use != nullptr && value == in_use->value;
}

/// A moment of the daemon has whole seconds here: a file of that second may have been changed after it.
bool is_unchanged_since(const std::string &path, const std::optional<control_moment> &read)
{
    struct stat found {};
    return read.has_value() && stat(path.c_str(), &found) == 0 &&
           found.st_ctim.tv_sec <
               std::chrono::floor<std::chrono::seconds>(*read).time_since_epoch().count();
}

const control_file *file_of(const control_status &status, std::string_view key)
{
    const auto found = std::ranges::find(status.files, key, &control_file::key);
    return found == status.files.end() ? nullptr : &*found;
}

/// A finding about a file ends in the key of its setting: "cannot be read: ... (key)".
std::string key_of_file(const check_finding &finding)
{
    const std::size_t begin = finding.what.rfind('(');
    const bool is_there = begin != std::string::npos && finding.what.ends_with(')');
    return is_there ? finding.what.substr(begin + 1, finding.what.size() - begin - 2) : "";
}

bool is_unchanged(const reload_view &view, std::string_view key)
{
    const control_file *const file = file_of(view.status, key);
    return file != nullptr && is_unchanged_since(file->path, file->read);
}

bool is_known_of_file(const check_finding &finding, const reload_view &view, const std::string &key)
{
    if (key == certificate_key || key == private_key_key) {
        return is_unchanged(view, certificate_key) && is_unchanged(view, private_key_key) &&
               has_value_in_use(view, key);
    }
    const control_file *const file = file_of(view.status, key);
    if (file == nullptr) { // one that is written, or a socket
        return has_value_in_use(view, key) &&
               finding.place.name != view.status.local_clients.socket;
    }
    const bool is_same = finding.place.name == file->path || finding.place.name == '/' + file->path;
    return is_same && (!file->usable || is_unchanged_since(file->path, file->read));
}

/// A setting of the file in use that would be the default again.
bool loses_settings(const reload_view &view)
{
    const auto is_lost = [&view](const config_setting &row) {
        const control_setting *const in_use = setting_of(view.status, row.key);
        return in_use != nullptr && in_use->source == "file" &&
               config_source_of(view.config, row) == config_source::standard;
    };
    const auto is_lost_of_logger = [&view](const control_setting &one) {
        return one.key.starts_with(logger_prefix) && one.source == "file" &&
               other_value(view, one.key) == nullptr;
    };
    return std::ranges::any_of(config_file_settings(), is_lost) ||
           std::ranges::any_of(view.status.settings, is_lost_of_logger);
}

bool is_known_of_nvram(const check_finding &finding, const reload_view &view)
{
    const std::string_view name = std::string_view{finding.place.name}.substr(6); // "nvram "
    for (const config_setting &row : config_file_settings()) {
        if (row.nvram != nullptr && name == row.nvram) {
            const control_setting *const in_use = setting_of(view.status, row.key);
            return in_use == nullptr || in_use->source != "nvram"; // then it is ignored now too
        }
    }
    const control_setting *const bssids = setting_of(view.status, "bssids.list");
    return bssids != nullptr && bssids->value == config_bssids_text(sys_bssids().get()) &&
           get_lanif_name_wlif().value_or(view.status.lan.interface) == view.status.lan.interface;
}

std::optional<control_moment> last_read(const control_status &status)
{
    std::optional<control_moment> last;
    for (const control_file &file : status.files) {
        last = std::max(last, file.read);
    }
    return last;
}

bool is_known_of_line(const check_finding &finding, const reload_view &view)
{
    if (is_unchanged_since(view.path, last_read(view.status))) {
        return true;
    }
    const auto line =
        std::ranges::find(view.file.lines, finding.place.line, &conffile_line::number);
    if (line == view.file.lines.end() || !line->is_pair || line->key.empty()) {
        return !loses_settings(view);
    }
    return has_value_in_use(view, line->key) ||
           std::ranges::find(view.status.unknown_keys, line->key) != view.status.unknown_keys.end();
}

} // namespace

reload_view reload_look(const control_status &status, const std::string &path)
{
    reload_view view{.status = status, .path = path};
    velm_config_set_defaults(&view.config);
    const conffile_ptr lines =
        path.empty() ? nullptr : conffile_account_for(path.c_str(), &view.file);
    // With one bad line the daemon takes none.
    const conffile_ptr pairs = lines == nullptr ? nullptr : conffile_parse(path.c_str());
    if (pairs != nullptr) {
        errno = 0; // a stale one would keep the numbers from being stored
        velm_config_load_pairs(&view.config, pairs);
    }
    velm_nvram_config_load(&view.config);
    return view;
}

bool reload_is_known(const check_finding &finding, const reload_view &view)
{
    const std::string &place = finding.place.name;
    if (place.starts_with("command line")) {
        return true; // it runs with it
    }
    if (place.starts_with("nvram ")) {
        return is_known_of_nvram(finding, view);
    }
    const std::string key = key_of_file(finding);
    if (!key.empty() && finding.place.line == 0 && place != view.path) {
        return is_known_of_file(finding, view, key);
    }
    if (finding.place.line == 0) { // the file itself, or what it leaves out
        const std::string left_out = finding.what.substr(0, finding.what.find(':'));
        return has_value_in_use(view, left_out) || !loses_settings(view);
    }
    return is_known_of_line(finding, view);
}
