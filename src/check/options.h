#pragma once

#include "check/finding.h"
#include "process/command_line.h"

/// The values of the command line.
void check_options(const velm_command_line &given, check_findings *findings);
