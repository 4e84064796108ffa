#pragma once

#include <string>
#include <vector>

#include "check/finding.h"
#include "process/command_line.h"

/// Everything that a start or a reload would read, looked at without starting anything: the configuration
/// file, nvram, the command line, keys and certificates, and whether pid file, socket and log could be
/// written. The parsers are the daemon's own.
///
/// It makes no process and no file, binds and locks nothing, and sees only what this user may read: a file
/// that this user cannot read is an error. It may run while the daemon runs. The log must be off.
[[nodiscard]] std::vector<check_finding> check_configuration(const velm_command_line &given,
                                                             const std::string &config_path);
