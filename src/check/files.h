#pragma once

#include <optional>
#include <string>

#include "check/subject.h"

/// The files that the daemon reads. A finding about a file has the file's path and ends in the key of its
/// setting.

struct check_file {
    const char *key;
    std::string path; // as the daemon opens it

    [[nodiscard]] check_place place() const
    {
        return {path, 0};
    }
};

/// The file of a setting whose value is `path`; nothing, with a finding, when no file is named or it
/// cannot be read.
[[nodiscard]] std::optional<check_file> check_readable(const check_subject &subject,
                                                       const char *key, const char *path,
                                                       check_findings *findings);

/// All of the file; nothing, with a finding, when it cannot be read.
[[nodiscard]] std::optional<std::string> check_read(const check_subject &subject, const char *key,
                                                    const char *path, check_findings *findings);
