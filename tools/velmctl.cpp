#include <cstdio>
#include <ctime>
#include <string_view>

#include "tools/check/command.h"
#include "tools/doctor/command.h"
#include "tools/explain/command.h"
#include "tools/locations/velmctl_locations.h"
#include "tools/options/velmctl_options.h"
#include "tools/reload/command.h"
#include "tools/status/command.h"
#include "tools/terminal/output.h"

/// velmctl asks the daemon for the access point's location, listens to what it reports, and tells people
/// how the daemon is.

namespace {

int run(const velmctl_options &options)
{
    switch (options.command) {
    case velmctl_command::locate:
        return velmctl_locate(options);
    case velmctl_command::watch:
        return velmctl_watch(options);
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
