#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// The command line of velmctl.

enum class velmctl_command {
    locate,
    watch,
    status,
    explain,
    metrics,
    doctor,
    reload,
    help,
    version
};

struct velmctl_options {
    velmctl_command command = velmctl_command::help;
    std::string socket_path = {};                 // of the location socket; empty: look for it
    std::uint16_t timeout_s = 60;                 // told to the daemon, with a request
    std::optional<unsigned> wait_s = {};          // none: for ever
    std::optional<std::string> control_path = {}; // of the control socket
    std::optional<std::string> config_path = {};  // the daemon's
    std::uint8_t rounds = 1;                      // that are explained
    bool json = false;
    bool follow = false;
    bool offline = false;
    bool force = false;
};

/// What to do if the command line is not understood, with the reason on standard error: none.
[[nodiscard]] std::optional<velmctl_options> velmctl_options_parse(int argc, char *argv[]);

extern const char velmctl_usage[];
