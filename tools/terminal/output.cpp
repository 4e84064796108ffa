#include "tools/terminal/output.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace {

const char *code_of(velmctl_colour colour)
{
    switch (colour) {
    case velmctl_colour::red:
        return "31";
    case velmctl_colour::green:
        return "32";
    case velmctl_colour::yellow:
        return "33";
    case velmctl_colour::bold:
        return "1";
    case velmctl_colour::faint:
        return "2";
    }
    return "0";
}

bool is_set(const char *name)
{
    const char *const value = std::getenv(name);
    return value != nullptr && *value != '\0';
}

} // namespace

bool velmctl_print(const std::string &text)
{
    if (std::fputs(text.c_str(), stdout) == EOF || std::fflush(stdout) == EOF) {
        if (errno == EPIPE) { // a supervisor, or the doctor, may have it ignored
            std::signal(SIGPIPE, SIG_DFL);
            std::raise(SIGPIPE);
        }
        std::perror("velmctl: standard output");
        return false;
    }
    return true;
}

std::string velmctl_paint::operator()(velmctl_colour colour, std::string_view text) const
{
    std::string plain{text};
    return colours_ ? std::string{"\033["} + code_of(colour) + 'm' + plain + "\033[0m" : plain;
}

velmctl_paint velmctl_paint_for_output()
{
    const char *const terminal = std::getenv("TERM");
    const bool is_dumb = terminal != nullptr && std::string_view{terminal} == "dumb";
    return velmctl_paint{isatty(STDOUT_FILENO) == 1 && !is_set("NO_COLOR") && !is_dumb};
}
