#include "tools/reload/command.h"

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "tools/control/place.h"
#include "tools/control/same_file.h"
#include "tools/reload/changes.h"
#include "tools/reload/check.h"
#include "tools/reload/daemon.h"
#include "tools/reload/target.h"
#include "tools/status/problems.h"
#include "tools/terminal/output.h"
#include "tools/terminal/text.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds pause{50};

int complain(const std::string &problem, int exit)
{
    std::fprintf(stderr, "velmctl: %s\n", problem.c_str());
    return exit;
}

int tell_changes(const control_status &before, const control_status &after)
{
    const std::vector<std::string> changes = reload_changes(before, after);
    std::string out = changes.empty()
                          ? "reloaded: no setting that velmctl status shows has changed\n"
                          : "reloaded:\n";
    for (const std::string &change : changes) {
        out += "  " + change + '\n';
    }
    const std::vector<std::string> problems = velmctl_status_problems(after);
    for (const std::string &problem : problems) {
        out += "wrong: " + problem + '\n';
    }
    return velmctl_print(out) && problems.empty() ? velmctl_exit_good : velmctl_exit_wrong;
}

/// Which other file is meant than the daemon reads; empty when none.
std::string other_file_problem(const velmctl_options &options, const reload_daemon &daemon)
{
    if (!options.config_path.has_value() || !daemon.status.has_value()) {
        return "";
    }
    const auto &read = daemon.status->daemon.configuration_file;
    if (control_is_same_file(read.value_or(""), *options.config_path)) {
        return "";
    }
    return "the daemon reads " + (read ? velmctl_text_for_terminal(*read) : "no file") + ", not " +
           velmctl_text_for_terminal(*options.config_path) + ": it was not told to reload";
}

/// The one that answers is the one that was told, and it has read its settings since.
bool has_reloaded(const control_status &now, const reload_daemon &daemon)
{
    return now.daemon.pid == *daemon.pid &&
           (!daemon.status.has_value() || now.daemon.reloads > daemon.status->daemon.reloads);
}

enum class outcome { reloaded, ended, busy, silent, late };

/// Asks where it told before and where its new configuration says.
struct waiting {
    const reload_daemon &daemon;
    const reload_target &target;
    std::string new_path;
    control_status after{};

    outcome ask_all()
    {
        outcome result = new_path.empty() ? outcome::silent : outcome::late;
        for (const std::string &path : {daemon.control_path, new_path}) {
            const reload_asked asked = reload_ask(path);
            if (asked.status.has_value() && has_reloaded(*asked.status, daemon)) {
                after = *asked.status;
                return outcome::reloaded;
            }
            if (asked.answer != reload_answer::none) {
                result = asked.answer == reload_answer::busy ? outcome::busy : outcome::late;
            }
        }
        return result;
    }

    outcome wait()
    {
        const auto end = steady_clock::now() + reload_limit;
        outcome result = outcome::late;
        do {
            if (target.has_ended()) {
                return outcome::ended;
            }
            result = ask_all();
            if (result == outcome::reloaded || result == outcome::silent) {
                return result;
            }
            std::this_thread::sleep_for(pause);
        } while (steady_clock::now() < end);
        return result;
    }
};

int tell_outcome(outcome result, const waiting &waited)
{
    switch (result) {
    case outcome::reloaded:
        break;
    case outcome::ended:
        return complain("the daemon (process " + std::to_string(waited.target.pid()) +
                            ") has ended during the reload: its log says why",
                        velmctl_exit_wrong);
    case outcome::busy:
        return complain("the daemon is busy: it was told to reload, and does not say whether it "
                        "has",
                        velmctl_exit_wrong);
    case outcome::silent:
        return complain("the daemon was told to reload; without its control socket nobody can tell "
                        "whether it has",
                        velmctl_exit_good);
    case outcome::late:
        return complain("the daemon has not reloaded: look at its log", velmctl_exit_wrong);
    }
    if (!waited.daemon.status.has_value()) {
        return velmctl_print("reloaded: what has changed is not known, since the daemon did not "
                             "answer before\n")
                   ? velmctl_exit_good
                   : velmctl_exit_wrong;
    }
    return tell_changes(*waited.daemon.status, waited.after);
}

int signal_and_wait(const velmctl_options &options, const reload_daemon &daemon)
{
    reload_target target;
    std::string problem;
    if (!target.hold(*daemon.pid, problem) || !target.tell_to_reload(problem)) {
        return complain(problem, velmctl_exit_unreachable);
    }
    const std::optional<std::string> file =
        daemon.status.has_value()
            ? std::optional{daemon.status->daemon.configuration_file.value_or("")}
            : options.config_path;
    waiting waited{daemon, target, control_place_find(std::nullopt, file).path};
    return tell_outcome(waited.wait(), waited);
}

} // namespace

int velmctl_reload(const velmctl_options &options)
{
    const reload_daemon daemon = reload_find(options);
    std::string problem = other_file_problem(options, daemon);
    if (!problem.empty()) {
        return complain(problem, velmctl_exit_wrong);
    }
    if (!reload_check(options, daemon)) {
        return complain("the configuration is wrong: the daemon was not told to read it",
                        velmctl_exit_wrong);
    }
    if (daemon.is_busy) {
        return complain("the daemon is busy: it was not told to reload", velmctl_exit_wrong);
    }
    if (!daemon.pid.has_value()) {
        return complain("no daemon runs: there is no pid file, and none answers at the control "
                        "socket",
                        velmctl_exit_unreachable);
    }
    problem = daemon.status.has_value() ? reload_port_problem(options, *daemon.status) : "";
    return problem.empty() ? signal_and_wait(options, daemon)
                           : complain(problem, velmctl_exit_wrong);
}
