#include "tools/reload/command.h"

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "check/check.h"
#include "tools/control/document.h"
#include "tools/control/exchange.h"
#include "tools/control/place.h"
#include "tools/control/status.h"
#include "tools/reload/changes.h"
#include "tools/reload/target.h"
#include "tools/status/problems.h"
#include "tools/terminal/output.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// The platform may take 5 s to tell the LAN address.
constexpr std::chrono::seconds reload_limit{15};
constexpr milliseconds question_limit{2000};
constexpr milliseconds pause{50};

std::optional<control_status> ask_status(const std::string &path)
{
    if (path.empty()) {
        return std::nullopt;
    }
    std::string problem;
    const control_answer answer = control_ask(path, "/v1/status", question_limit);
    const bool is_good = answer.result == control_result::done && answer.status == 200;
    const json_ptr document = is_good ? control_document_parse(answer.body, problem) : nullptr;
    if (document == nullptr) {
        return std::nullopt;
    }
    control_status status = control_status_read(document.get(), problem);
    return problem.empty() ? std::optional{std::move(status)} : std::nullopt;
}

int complain(const std::string &problem, int exit)
{
    std::fprintf(stderr, "velmctl: %s\n", problem.c_str());
    return exit;
}

/// False when something is wrong; all that was found is said.
bool is_configuration_good(const velmctl_options &options)
{
    velm_command_line given;
    given.config_path = options.config_path;
    const std::string path = options.config_path.value_or(control_default_config);
    const std::vector<check_finding> findings = check_configuration(given, path);
    for (const check_finding &finding : findings) {
        std::fprintf(stderr, "%s\n", check_finding_text(finding).c_str());
    }
    return check_is_good(findings);
}

/// In the background the daemon has a pid file; one that a supervisor started says its number itself.
std::optional<pid_t> find_pid(const velmctl_options &options,
                              const std::optional<control_status> &before)
{
    if (before.has_value()) {
        return static_cast<pid_t>(before->daemon.pid);
    }
    return reload_pid_of_file(control_pid_file_of(options.config_path));
}

std::optional<control_status> wait_for_reload(const std::string &path, const control_status &before)
{
    const auto end = steady_clock::now() + reload_limit;
    while (steady_clock::now() < end) {
        std::optional<control_status> now = ask_status(path);
        if (now.has_value() && now->daemon.reloads > before.daemon.reloads) {
            return now;
        }
        std::this_thread::sleep_for(pause);
    }
    return std::nullopt;
}

int tell_changes(const control_status &before, const control_status &after)
{
    const std::vector<std::string> changes = reload_changes(before, after);
    std::string out = changes.empty() ? "reloaded: no setting has changed\n" : "reloaded:\n";
    for (const std::string &change : changes) {
        out += "  " + change + '\n';
    }
    const std::vector<std::string> problems = velmctl_status_problems(after);
    for (const std::string &problem : problems) {
        out += "wrong: " + problem + '\n';
    }
    return velmctl_print(out) && problems.empty() ? velmctl_exit_good : velmctl_exit_wrong;
}

} // namespace

int velmctl_reload(const velmctl_options &options)
{
    if (!is_configuration_good(options)) {
        return complain("the configuration is wrong: the daemon was not told to read it",
                        velmctl_exit_wrong);
    }
    const std::string path = control_place_find(options.control_path, options.config_path).path;
    const std::optional<control_status> before = ask_status(path);
    const std::optional<pid_t> pid = find_pid(options, before);
    if (!pid.has_value()) {
        return complain("no daemon runs: there is no pid file, and none answers at the control "
                        "socket",
                        velmctl_exit_unreachable);
    }
    reload_target target;
    std::string problem;
    if (!target.hold(*pid, problem) || !target.tell_to_reload(problem)) {
        return complain(problem, velmctl_exit_unreachable);
    }
    if (!before.has_value()) {
        return complain("the daemon was told to reload; without its control socket nobody can tell "
                        "whether it has",
                        velmctl_exit_good);
    }
    const std::optional<control_status> after = wait_for_reload(path, *before);
    return after.has_value()
               ? tell_changes(*before, *after)
               : complain("the daemon has not reloaded, or has ended: look at its log",
                          velmctl_exit_wrong);
}
