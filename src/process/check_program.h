#pragma once

/// `velmd -t`: what it would make of its configuration. The check is in velmctl, which needs it too, so that
/// the flash of a device has it once, and not in the daemon.

/// Becomes `velmctl check` with the same options. velmctl is looked for beside this program and in ../bin.
/// Returns only when it is not there: a status for exit(), with the reason on standard error.
[[nodiscard]] int process_become_check(int argc, char **argv);
