#pragma once

#include "check/subject.h"

/// Where the daemon writes: pid file, Unix socket, log. Nothing is made or opened for writing. And what it
/// reads for a login.
void check_writes(const check_subject &subject, check_findings *findings);
void check_accounts(const check_subject &subject, check_findings *findings);

/// A warning for each path that counts from "/" and does not begin there.
void check_relative_paths(const check_subject &subject, check_findings *findings);
