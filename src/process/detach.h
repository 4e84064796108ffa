#pragma once

#include "process/command_line.h"
#include "process/pid_file.h"

/// Goes into the background: forks, ends the caller's process with 0, and writes the pid file, whose
/// claim is to be kept while the process lives. A daemon that init started is in the background already,
/// and init knows its pid: then nothing is done, and no file claimed. Whatever fails ends the process
/// with 1, a pid file that another daemon holds with a word on standard error.
[[nodiscard]] velm_pid_file daemonize(const char *pid_path);

/// Tells the platform's process monitor how to start this process again.
void process_register_for_restart(velm_command_line &command_line);
