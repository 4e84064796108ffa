#pragma once

#include "check/finding.h"
#include "conffile/conffile.h"

/// The lines of the configuration file, as the daemon's own parser made them.

void check_lines(const std::string &path, const conffile_account &account,
                 check_findings *findings);

/// The line of the file from which a key has its value; without one the whole file.
[[nodiscard]] check_place check_place_of_key(const std::string &path,
                                             const conffile_account &account, std::string_view key);
