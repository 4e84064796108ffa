#pragma once

#include <optional>
#include <string>
#include <vector>

/// The daemon's command line: "hvtc:i:n:s:m:b:" by POSIX getopt, whose own diagnostics stay on.

/// What was given; the last one of a repeated option counts.
struct velm_command_line {
    std::optional<std::string> config_path; // -c, absolute; empty: no file is read
    std::optional<std::string> lan_ip_address;
    std::optional<std::string> lan_name;
    std::optional<std::string> serial_number;
    std::optional<std::string> mac_address;
    std::optional<std::string> bssids;
    bool checks = false; // -t: look at the configuration and start nothing
    /// The arguments with which the daemon can be started again from any directory: those that were
    /// given, with the program's path and that of -c absolute.
    std::vector<std::string> restart_arguments;
};

/// Parses the arguments. Ends the process with 0 after help or version, each honoured only as the
/// sole option, and with 1 after an option that getopt does not accept.
[[nodiscard]] velm_command_line velm_command_line_parse(int argc, char **argv);

/// Whether -t is among the arguments. Says nothing, and leaves them to be parsed.
[[nodiscard]] bool velm_command_line_asks_to_check(int argc, char **argv);
