#pragma once

#include <optional>
#include <string>

/// Where the daemon's control socket is: at `given`; else where the daemon's configuration file says, or
/// beside its pid file. The file is `config`, or the daemon's own default when none is given.

/// The daemon's own default.
inline constexpr char control_default_config[] = "/etc/afc/velmd/velmd.conf";

struct control_place {
    std::string path;    // empty: there is none
    std::string problem; // why not, in words
};

[[nodiscard]] control_place control_place_find(const std::optional<std::string> &given,
                                               const std::optional<std::string> &config);

/// The same for the location socket, when none is given: nvram may name it in place of the file.
[[nodiscard]] control_place control_location_place_find(const std::optional<std::string> &config);

/// Where the daemon's pid file is, by the same file; empty when it has none.
[[nodiscard]] std::string control_pid_file_of(const std::optional<std::string> &config);
