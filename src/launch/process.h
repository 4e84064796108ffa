#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "handles/fd.h"

/// The time that a shell command may take. The daemon runs one only: it prints the LAN address. A command
/// that takes longer is ended, with all that it has started, and has failed.
inline constexpr std::chrono::seconds common_launch_time{5};

/// A shell and what it runs, in a process group of their own. Letting go ends them all.
class common_launch_process {
  public:
    common_launch_process(pid_t shell, unique_fd output);
    ~common_launch_process();
    common_launch_process(const common_launch_process &) = delete;
    common_launch_process &operator=(const common_launch_process &) = delete;

    /// Takes what waits in the pipe, and never waits for more. True at the end of the output, or when
    /// nothing can be read any more: common_launch_end then waits for the end of the shell alone.
    [[nodiscard]] bool read();

    /// Reads to the end of the output; false when the time was over before, or reading failed.
    [[nodiscard]] bool read_to_end();

    /// Its time is over now, whatever was left.
    void end_time() noexcept
    {
        end_ = {};
    }

    /// Whether the shell has ended, without waiting for it.
    [[nodiscard]] bool has_ended();

    /// Waits for the end of the shell, whose output has ended, until the time is over. Its raw wait status;
    /// nothing without one, and errno. It does not wait when has_ended has said yes.
    [[nodiscard]] std::optional<int> wait();

    [[nodiscard]] int descriptor() const noexcept
    {
        return output_.get();
    }
    [[nodiscard]] std::string &text() noexcept
    {
        return text_;
    }

  private:
    pid_t shell_;
    unique_fd output_; // what the command prints comes here, never blocking
    std::chrono::steady_clock::time_point end_;
    std::string text_;
    int status_ = 0;     // the shell's, when it has ended
    int wait_error_ = 0; // or why nobody knows it
    int error_ = 0;      // of reading
    bool is_at_end_ = false;
};

/// Starts a shell; null when that fails, and errno.
[[nodiscard]] std::unique_ptr<common_launch_process>
common_launch_process_start(const char *command);
