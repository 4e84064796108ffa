#include "tools/status/problems.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "logger/common_logger.h"
#include "logger/keys.h"
#include "tools/terminal/text.h"
#include "tools/terminal/times.h"

namespace {

using problems = std::vector<std::string>;

std::string because(const std::optional<std::string> &why)
{
    return why.has_value() ? ": " + velmctl_text_for_terminal(*why) + '.' : ".";
}

/// Port 0 switches a server off; the others are meant to listen.
void look_at_servers(const control_status &status, problems &out)
{
    if (status.https.port != 0 && !status.https.listening) {
        out.push_back("HTTPS does not listen on port " + std::to_string(status.https.port) +
                      ": no phone can reach the daemon.");
    }
    if (status.discovery.port != 0 && !status.discovery.listening) {
        out.push_back("Discovery does not listen on port " + std::to_string(status.discovery.port) +
                      ": no phone can find the daemon.");
    }
    if (!status.local_clients.listening) {
        out.push_back("The socket " + velmctl_text_for_terminal(status.local_clients.socket) +
                      " does not listen: no local client can ask.");
    }
    const control_connections &connections = status.https.connections;
    if (connections.limit > 0 && connections.now >= connections.limit) {
        out.push_back("All " + std::to_string(connections.limit) +
                      " connections of HTTPS are taken: phones may be turned away.");
    }
}

void look_at_certificate(const control_status &status, problems &out)
{
    if (status.https.port == 0) {
        return;
    }
    if (!status.certificate.has_value()) {
        out.emplace_back("There is no certificate: no phone can connect.");
        return;
    }
    if (status.certificate->not_after < status.now) {
        out.push_back("The certificate expired at " +
                      velmctl_date_of(status.certificate->not_after) + ": phones refuse it.");
    }
    if (status.certificate->not_before > status.now) {
        out.push_back("The certificate is not valid before " +
                      velmctl_date_of(status.certificate->not_before) + ": phones refuse it.");
    }
}

std::string setting_of(const control_status &status, std::string_view key)
{
    const auto found = std::find_if(status.settings.begin(), status.settings.end(),
                                    [key](const control_setting &one) { return one.key == key; });
    return found == status.settings.end() ? "" : found->value;
}

/// Who opens the tokens of Android phones decides which of the keys for them are used.
bool is_of_other_method(const control_status &status, std::string_view key)
{
    const bool is_remote = setting_of(status, "app.android.integrity.method") == "remote";
    return is_remote ? key == "app.android.integrity.d.key.path" ||
                           key == "app.android.integrity.v.key.path"
                     : key == "app.android.integrity.privatekey.path";
}

} // namespace

bool velmctl_status_is_file_wrong(const control_status &status, const control_file &file)
{
    // Nobody knows of a file that was not read yet.
    return !file.usable && file.read.has_value() && !is_of_other_method(status, file.key);
}

namespace {

void look_at_files(const control_status &status, problems &out)
{
    for (const control_file &file : status.files) {
        if (velmctl_status_is_file_wrong(status, file)) {
            out.push_back("The file " + velmctl_text_for_terminal(file.path) + " (" +
                          velmctl_text_for_terminal(file.key) + ") cannot be used" +
                          because(file.why));
        }
    }
}

} // namespace

std::vector<std::string> velmctl_status_problems(const control_status &status)
{
    problems out;
    if (!status.lan.address.has_value()) {
        out.push_back("The LAN interface " + velmctl_text_for_terminal(status.lan.interface) +
                      " has no address: no phone can reach the daemon.");
    }
    look_at_servers(status, out);
    look_at_certificate(status, out);
    look_at_files(status, out);
    if (!status.clock.plausible) {
        out.push_back("The clock is wrong" + because(status.clock.why));
    }
    return out;
}

namespace {

constexpr std::string_view level_key = "logger.level";
constexpr std::string_view category_prefix = "logger.category.";

bool is_trace(const control_setting &setting)
{
    return (setting.key == level_key || setting.key.starts_with(category_prefix)) &&
           logger_level(setting.value.c_str()) == LOG_LEVEL_TRACE;
}

bool logs(const control_status &status)
{
    constexpr std::string_view outputs[] = {"logger.enabled", "logger.stdout", "logger.syslog",
                                            "logger.file"};
    return std::any_of(std::begin(outputs), std::end(outputs), [&status](std::string_view key) {
        return logger_truth(setting_of(status, key)).value_or(false);
    });
}

} // namespace

std::string velmctl_status_log_warning(const control_status &status)
{
    // Of a key that is there twice the first one counts.
    const bool is_quiet = !setting_of(status, level_key).empty() &&
                          logger_level(setting_of(status, level_key).c_str()) != LOG_LEVEL_TRACE;
    for (const control_setting &setting : status.settings) {
        if (logs(status) && is_trace(setting) && !(is_quiet && setting.key == level_key)) {
            return velmctl_text_for_terminal(setting.key) +
                   " is trace: passwords, tokens and locations are written to the log";
        }
    }
    return "";
}

std::vector<std::string> velmctl_status_warnings(const control_status &status)
{
    problems out;
    const std::string of_log = velmctl_status_log_warning(status);
    if (!of_log.empty()) {
        out.push_back(of_log + '.');
    }
    for (const std::string &key : status.unknown_keys) {
        out.push_back("The configuration file has a key that the daemon does not know: " +
                      velmctl_text_for_terminal(key) + '.');
    }
    return out;
}
