#pragma once

#include <string>
#include <vector>

#include "check/finding.h"

/// What was found, as it is told.
inline std::vector<std::string> found(check_findings findings)
{
    std::vector<std::string> all;
    for (const check_finding &finding : findings.take()) {
        all.push_back(check_finding_text(finding));
    }
    return all;
}
