#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// The rights of another process.
struct reload_rights {
    uid_t user = 0;
    gid_t group = 0;
    std::vector<gid_t> groups;
    std::optional<std::uint64_t> capabilities = {}; // the effective ones; none: not known
};

/// From the text of /proc/PID/status: the effective ids and capabilities. Nothing when one is missing.
[[nodiscard]] std::optional<reload_rights> reload_rights_of_text(const std::string &text);

[[nodiscard]] std::optional<reload_rights> reload_rights_of(pid_t pid);

/// Runs `work` in a process of its own, with the rights when they are given; this process keeps its own.
/// False when it gave false, or could not be run.
[[nodiscard]] bool reload_run_with(const std::optional<reload_rights> &rights,
                                   const std::function<bool()> &work);
