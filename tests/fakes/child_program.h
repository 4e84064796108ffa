#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "handles/fd.h"

/// A program run beside the loop, its output collected. Killed with the object if it has not ended
/// by itself. It inherits the standard streams only.
class child_program {
  public:
    explicit child_program(const std::vector<std::string> &arguments);
    child_program(const child_program &) = delete;
    child_program &operator=(const child_program &) = delete;
    ~child_program();

    /// Does not wait; brings `out` and `error` up to date.
    bool has_ended();
    /// -1 as long as it runs, and when a signal ended it.
    [[nodiscard]] int exit_status() const;

    std::string out;
    std::string error;

  private:
    pid_t pid_ = -1;
    unique_fd out_;
    unique_fd error_;
    std::optional<int> status_;
};
