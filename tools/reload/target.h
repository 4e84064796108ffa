#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "handles/fd.h"

/// The process that is to reload. It is held, so that the signal reaches it or nobody: its number may be
/// given to another process meanwhile.
class reload_target {
  public:
    /// Holds the process if it is the daemon. False, and then `problem` says why not.
    [[nodiscard]] bool hold(pid_t pid, std::string &problem);

    /// False, with the reason in `problem`, when it may not be signalled or has ended.
    [[nodiscard]] bool tell_to_reload(std::string &problem) const;

    /// True as soon as the process has ended.
    [[nodiscard]] bool has_ended() const;

    [[nodiscard]] pid_t pid() const
    {
        return pid_;
    }

  private:
    pid_t pid_ = 0;
    unique_fd process_; // none where the kernel has no such descriptors
};

/// The number in the pid file; nothing when there is none.
[[nodiscard]] std::optional<pid_t> reload_pid_of_file(const std::string &path);

/// The same of a text.
[[nodiscard]] std::optional<pid_t> reload_pid_of_text(std::string_view text);
