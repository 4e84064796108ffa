#pragma once

#include <optional>
#include <string>

/// Where the daemon's control socket is: at `given`; else where the daemon's configuration file says, or
/// beside its pid file. The file is `config`, or the daemon's own default when none is given.

struct control_place {
    std::string path;    // empty: there is none
    std::string problem; // why not, in words
};

[[nodiscard]] control_place control_place_find(const std::optional<std::string> &given,
                                               const std::optional<std::string> &config);
