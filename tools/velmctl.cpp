#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>

#include "process/version.h"
#include "tools/check/command.h"
#include "tools/control/place.h"
#include "tools/doctor/command.h"
#include "tools/explain/command.h"
#include "tools/locations/velmctl_locations.h"
#include "tools/options/velmctl_options.h"
#include "tools/reload/command.h"
#include "tools/status/command.h"
#include "tools/terminal/output.h"
#include "tools/terminal/text.h"

/// velmctl asks the daemon for the access point's location, listens to what it reports, and tells people
/// how the daemon is.

namespace {

int print_version()
{
    const std::string text = "velmctl " + std::to_string(velm_version_major) + '.' +
                             std::to_string(velm_version_minor) + '.' +
                             std::to_string(velm_version_patch) + '\n';
    return velmctl_print(text) ? velmctl_exit_good : velmctl_exit_wrong;
}

/// Runs a command that uses the location socket, which the daemon's configuration names.
int run_at_socket(velmctl_options options, int (*command)(const velmctl_options &options))
{
    if (options.socket_path.empty()) {
        const control_place place = control_location_place_find(options.config_path);
        if (place.path.empty()) {
            const std::string problem = velmctl_text_for_terminal(place.problem);
            std::fprintf(stderr, "velmctl: %s\n", problem.c_str());
            return velmctl_exit_wrong;
        }
        options.socket_path = place.path;
    }
    return command(options);
}

int run(const velmctl_options &options)
{
    switch (options.command) {
    case velmctl_command::locate:
        return run_at_socket(options, velmctl_locate);
    case velmctl_command::watch:
        return run_at_socket(options, velmctl_watch);
    case velmctl_command::status:
        return velmctl_status(options);
    case velmctl_command::explain:
        return velmctl_explain(options);
    case velmctl_command::metrics:
        return velmctl_metrics(options);
    case velmctl_command::doctor:
        return velmctl_doctor(options);
    case velmctl_command::reload:
        return velmctl_reload(options);
    case velmctl_command::version:
        return print_version();
    case velmctl_command::help:
        break;
    }
    return velmctl_print(velmctl_usage) ? velmctl_exit_good : velmctl_exit_wrong;
}

} // namespace

int main(int argc, char *argv[])
{
    tzset(); // before localtime_r, which need not look for the time zone itself
    if (argc > 1 && std::string_view{argv[1]} == "check") {
        return velmctl_check(argc - 1, argv + 1);
    }
    const auto options = velmctl_options_parse(argc, argv);
    if (!options.has_value()) {
        std::fputs(velmctl_usage, stderr);
        return velmctl_exit_usage;
    }
    return run(*options);
}
