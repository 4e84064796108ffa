#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "launch/process.h"
#include "tools/control/status.h"
#include "tools/options/velmctl_options.h"

/// Whom a reload is for, and what it says of itself.

/// The platform may take its whole time to tell the LAN address before the reload begins.
inline constexpr std::chrono::seconds reload_limit = common_launch_time + std::chrono::seconds{10};

enum class reload_answer { given, busy, none };

struct reload_asked {
    reload_answer answer = reload_answer::none;
    std::optional<control_status> status; // when given
};

/// Asks once.
[[nodiscard]] reload_asked reload_ask(const std::string &path);

struct reload_daemon {
    std::optional<pid_t> pid;             // none: no daemon is known
    std::optional<control_status> status; // none: it does not tell
    std::string control_path;             // where it told
    bool is_busy = false;                 // it runs, and told nothing until the limit
};

/// At the control socket that is given or that the file names, else the process $MAINPID or that of the
/// pid file. When control.sock has changed, a daemon that reads the same file may still be at the
/// default place.
[[nodiscard]] reload_daemon reload_find(const velmctl_options &options);
