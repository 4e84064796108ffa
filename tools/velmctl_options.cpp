#include "velmctl_options.h"

#include <getopt.h>
#include <velm/location_policy.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <limits>

const char velmctl_usage[] =
    "usage: velmctl locate [--socket PATH] [--timeout S] [--wait S] [--json]\n"
    "       velmctl watch [--socket PATH] [--wait S] [--json]\n"
    "       velmctl --help\n";

namespace {

constexpr option long_options[] = {
    {"socket", required_argument, nullptr, 's'}, {"timeout", required_argument, nullptr, 't'},
    {"wait", required_argument, nullptr, 'w'},   {"json", no_argument, nullptr, 'j'},
    {"help", no_argument, nullptr, 'h'},         {nullptr, 0, nullptr, 0},
};

/// Decimal digits only.
template <typename T>
bool parse_seconds(const char *name, const char *text, T &seconds)
{
    const char *const end = text + std::strlen(text);
    T value = 0;
    const auto [stopped, error] = std::from_chars(text, end, value);
    if (error != std::errc{} || stopped != end) {
        std::fprintf(stderr, "velmctl: --%s takes 0 to %llu seconds, not %s\n", name,
                     static_cast<unsigned long long>(std::numeric_limits<T>::max()), text);
        return false;
    }
    seconds = value;
    return true;
}

bool parse_command(const char *name, velmctl_command &command)
{
    if (std::strcmp(name, "locate") == 0) {
        command = velmctl_command::locate;
        return true;
    }
    if (std::strcmp(name, "watch") == 0) {
        command = velmctl_command::watch;
        return true;
    }
    std::fprintf(stderr, "velmctl: unknown command %s\n", name);
    return false;
}

struct parsed {
    velmctl_options options;
    bool timeout_given = false;
};

bool apply_option(int letter, parsed &line)
{
    switch (letter) {
    case 's':
        line.options.socket_path = optarg;
        return true;
    case 't':
        line.timeout_given = true;
        return parse_seconds("timeout", optarg, line.options.timeout_s);
    case 'w':
        line.options.wait_s = 0U;
        return parse_seconds("wait", optarg, *line.options.wait_s);
    case 'j':
        line.options.json = true;
        return true;
    default:
        return false; // getopt has said why
    }
}

bool finish_command(int argc, char *argv[], parsed &line)
{
    if (optind + 1 != argc) {
        std::fputs("velmctl: one command, please\n", stderr);
        return false;
    }
    if (!parse_command(argv[optind], line.options.command)) {
        return false;
    }
    const bool asks = line.options.command == velmctl_command::locate;
    if (!asks && line.timeout_given) {
        std::fputs("velmctl: watch sends no request, so it takes no --timeout\n", stderr);
        return false;
    }
    if (asks && !line.options.wait_s.has_value()) {
        line.options.wait_s = line.options.timeout_s;
    }
    return true;
}

} // namespace

std::optional<velmctl_options> velmctl_options_parse(int argc, char *argv[])
{
    parsed line;
    line.options.socket_path = VELM_LOCATION_POLICY_DEFAULT_SOCKET;
    for (int letter = 0; (letter = getopt_long(argc, argv, "h", long_options, nullptr)) != -1;) {
        if (letter == 'h') {
            return velmctl_options{};
        }
        if (!apply_option(letter, line)) {
            return std::nullopt;
        }
    }
    if (!finish_command(argc, argv, line)) {
        return std::nullopt;
    }
    return line.options;
}
