#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// The command line of velmctl.

enum class velmctl_command { locate, watch, help };

struct velmctl_options {
    velmctl_command command = velmctl_command::help;
    std::string socket_path;
    std::uint16_t timeout_s = 60;        // told to the daemon, with a request
    std::optional<unsigned> wait_s = {}; // none: for ever
    bool json = false;
};

/// What to do if the command line is not understood, with the reason on standard error: none.
[[nodiscard]] std::optional<velmctl_options> velmctl_options_parse(int argc, char *argv[]);

extern const char velmctl_usage[];
