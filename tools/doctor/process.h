#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

/// What /proc shows of the daemon.

/// The process of a daemon that was started with this configuration file; nothing when none is seen.
[[nodiscard]] std::optional<pid_t> doctor_find_process(const std::string &config_path);

/// The same process, if it is a daemon here: its number may be from another system of processes.
[[nodiscard]] std::optional<pid_t> doctor_process_if_daemon(pid_t process);

enum class doctor_network { same, other, unknown };

/// Whether it sees the interfaces that we see; unknown when it does not let us look.
[[nodiscard]] doctor_network doctor_network_of(pid_t process);

/// True when it has another file of accounts than we have, as in a container.
[[nodiscard]] bool doctor_process_has_other_accounts(pid_t process);

/// Whether a socket of the process has the port; nothing when it does not let us look. `kind` is
/// SOCK_STREAM or SOCK_DGRAM.
[[nodiscard]] std::optional<bool> doctor_process_has_port(pid_t process, std::uint16_t port,
                                                          int kind);
