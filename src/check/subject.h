#pragma once

#include <string>
#include <string_view>

#include "check/finding.h"
#include "conffile/conffile.h"
#include "config/record.h"

/// What is checked: the record that the daemon would have, and where its settings come from.
struct check_subject {
    velm_config config{};
    std::string config_path;
    conffile_account file{};
    conffile_ptr pairs; // of the file; null without one
};

/// Where a setting has its value from: nvram, a line of the file, or the file that leaves it out.
[[nodiscard]] check_place check_place_of(const check_subject &subject, std::string_view key);

/// The path as the daemon opens it: when it detaches, a relative one counts from "/".
[[nodiscard]] std::string check_path_of(const check_subject &subject, const char *path);
