#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "config/record.h"
#include "tools/control/status.h"
#include "tools/options/velmctl_options.h"

/// What the doctor looks at: the settings that the daemon would have, and what it says if it runs.
struct doctor_subject {
    velm_config config{};
    std::string config_path;              // empty: no file is read
    bool is_config_asked_for = false;     // by -c: then it must be there
    std::optional<control_status> daemon; // none: it does not run, or does not answer us
    std::string no_daemon;                // then: why
    std::optional<pid_t> process;         // of the daemon that reads the file; none: none is seen
    bool answers_as_ours =
        false;                 // /info, with the certificate of the file: only looked at when the
                               // daemon does not say how it is
    bool is_elsewhere = false; // the daemon is in another network than this program
    std::string lan_address;   // empty: none is known
    bool offline = false;
    bool is_root = false;
    bool is_privy = false; // root or the daemon's user: what is refused to us is refused to it too
    bool is_config_shut = false; // we may not read it: what it says is not known
};

/// It answers us, or is seen to be there.
[[nodiscard]] bool doctor_is_running(const doctor_subject &subject);

/// Nvram is for us: root and the daemon's user see it, also when it is empty.
[[nodiscard]] bool doctor_sees_nvram(const doctor_subject &subject);

/// Reads the configuration file, nvram and the platform as the daemon does, and asks the daemon.
[[nodiscard]] doctor_subject doctor_look_at(const velmctl_options &options);
