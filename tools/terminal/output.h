#pragma once

#include <string>
#include <string_view>

/// Standard output, and how a command ends.

enum velmctl_exit : int {
    velmctl_exit_good = 0,
    velmctl_exit_wrong = 1, // something is wrong, or there is nothing to tell
    velmctl_exit_usage = 2,
    velmctl_exit_unreachable = 3, // of the commands that use the control socket
};

/// False when standard output is gone, with the reason on standard error.
[[nodiscard]] bool velmctl_print(const std::string &text);

enum class velmctl_colour { red, green, yellow, bold, faint };

/// Colours, where they are wanted: on a terminal, unless NO_COLOR is set or TERM is "dumb".
class velmctl_paint {
  public:
    explicit velmctl_paint(bool colours) : colours_{colours}
    {
    }

    [[nodiscard]] std::string operator()(velmctl_colour colour, std::string_view text) const;

  private:
    bool colours_;
};

[[nodiscard]] velmctl_paint velmctl_paint_for_output();
