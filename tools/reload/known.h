#pragma once

#include <string>

#include "check/finding.h"
#include "conffile/conffile.h"
#include "config/record.h"
#include "tools/control/status.h"

/// What is wrong with the daemon already, so that a reload makes nothing worse.

/// How the daemon is, and what it would read now.
struct reload_view {
    const control_status &status;
    std::string path;        // of the configuration file
    conffile_account file{}; // its lines
    velm_config config{};    // by the file and nvram
};

[[nodiscard]] reload_view reload_look(const control_status &status, const std::string &path);

/// True for a finding that the running daemon has too: the file is as it was read, or could not be used
/// then either; the setting has the value that is in use; the key was unknown.
[[nodiscard]] bool reload_is_known(const check_finding &finding, const reload_view &view);
