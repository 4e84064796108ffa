#include "tools/options/velmctl_options.h"

#include <getopt.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <span>

const char velmctl_usage[] =
    "usage: velmctl locate [-c FILE] [--socket PATH] [--timeout S] [--wait S] [--json]\n"
    "       velmctl watch [-c FILE] [--socket PATH] [--wait S] [--json]\n"
    "       velmctl status [-c FILE] [--control PATH] [--json]\n"
    "       velmctl explain [N] [-c FILE] [--control PATH] [--follow] [--json]\n"
    "       velmctl metrics [-c FILE] [--control PATH]\n"
    "       velmctl doctor [-c FILE] [--control PATH] [--offline] [--json]\n"
    "       velmctl reload [-c FILE] [--control PATH] [--force]\n"
    "       velmctl check [-c FILE] [-i ADDRESS] [-n BRIDGE] [-s NUMBER] [-m MAC] [-b BSSIDS]\n"
    "       velmctl --help | --version\n";

namespace {

constexpr option long_options[] = {
    {"socket", required_argument, nullptr, 's'}, {"timeout", required_argument, nullptr, 't'},
    {"wait", required_argument, nullptr, 'w'},   {"control", required_argument, nullptr, 'C'},
    {"config", required_argument, nullptr, 'c'}, {"json", no_argument, nullptr, 'j'},
    {"follow", no_argument, nullptr, 'f'},       {"offline", no_argument, nullptr, 'o'},
    {"help", no_argument, nullptr, 'h'},         {"version", no_argument, nullptr, 'v'},
    {"force", no_argument, nullptr, 'F'},        {nullptr, 0, nullptr, 0},
};

/// As many rounds as the daemon remembers.
constexpr unsigned rounds_max = 32;

struct command_row {
    const char *name;
    velmctl_command command;
    const char *takes; // the letters of its options
};

// clang-format off
constexpr command_row commands[] = {
    {"locate",  velmctl_command::locate,  "cstwj"},
    {"watch",   velmctl_command::watch,   "cswj"},
    {"status",  velmctl_command::status,  "cCj"},
    {"explain", velmctl_command::explain, "cCjf"},
    {"metrics", velmctl_command::metrics, "cC"},
    {"doctor",  velmctl_command::doctor,  "cCoj"},
    {"reload",  velmctl_command::reload,  "cCF"},
};
// clang-format on

/// Decimal digits only.
template <typename T>
bool parse_number(const char *text, T &number)
{
    const char *const end = text + std::strlen(text);
    T value = 0;
    const auto [stopped, error] = std::from_chars(text, end, value);
    if (error != std::errc{} || stopped != end) {
        return false;
    }
    number = value;
    return true;
}

template <typename T>
bool parse_seconds(const char *name, const char *text, T &seconds)
{
    if (parse_number(text, seconds)) {
        return true;
    }
    std::fprintf(stderr, "velmctl: --%s takes 0 to %llu seconds, not %s\n", name,
                 static_cast<unsigned long long>(std::numeric_limits<T>::max()), text);
    return false;
}

const command_row *find_command(const char *name)
{
    const auto *const row =
        std::find_if(std::begin(commands), std::end(commands),
                     [name](const command_row &one) { return std::strcmp(one.name, name) == 0; });
    if (row != std::end(commands)) {
        return row;
    }
    std::fprintf(stderr, "velmctl: unknown command %s\n", name);
    return nullptr;
}

struct parsed {
    velmctl_options options;
    std::string given; // the letters of the options that were given
};

bool apply_option(int letter, parsed &line)
{
    line.given += static_cast<char>(letter);
    switch (letter) {
    case 's':
        line.options.socket_path = optarg;
        return true;
    case 't':
        return parse_seconds("timeout", optarg, line.options.timeout_s);
    case 'w':
        line.options.wait_s = 0U;
        return parse_seconds("wait", optarg, *line.options.wait_s);
    case 'C':
        line.options.control_path = optarg;
        return true;
    case 'c':
        line.options.config_path = optarg;
        return true;
    case 'j':
        line.options.json = true;
        return true;
    case 'f':
        line.options.follow = true;
        return true;
    case 'F':
        line.options.force = true;
        return true;
    case 'o':
        line.options.offline = true;
        return true;
    default:
        return false; // getopt has said why
    }
}

const char *name_of_option(char letter)
{
    const auto *const row = std::find_if(std::begin(long_options), std::end(long_options),
                                         [letter](const option &one) { return one.val == letter; });
    return row->name;
}

bool takes_what_was_given(const command_row &row, const parsed &line)
{
    const auto other = std::find_if(line.given.begin(), line.given.end(), [&row](char letter) {
        return std::strchr(row.takes, letter) == nullptr;
    });
    if (other == line.given.end()) {
        return true;
    }
    if (row.command == velmctl_command::watch && *other == 't') {
        std::fputs("velmctl: watch sends no request, so it takes no --timeout\n", stderr);
    } else {
        std::fprintf(stderr, "velmctl: %s takes no --%s\n", row.name, name_of_option(*other));
    }
    return false;
}

/// How many rounds; only explain has an argument.
bool parse_arguments(const command_row &row, std::span<char *const> arguments,
                     velmctl_options &options)
{
    if (arguments.empty()) {
        return true;
    }
    if (row.command != velmctl_command::explain || arguments.size() > 1) {
        std::fputs("velmctl: one command, please\n", stderr);
        return false;
    }
    if (parse_number(arguments[0], options.rounds) && options.rounds >= 1 &&
        options.rounds <= rounds_max) {
        return true;
    }
    std::fprintf(stderr, "velmctl: explain takes 1 to %u rounds, not %s\n", rounds_max,
                 arguments[0]);
    return false;
}

bool finish_command(std::span<char *const> words, parsed &line)
{
    if (words.empty()) {
        std::fputs("velmctl: one command, please\n", stderr);
        return false;
    }
    const command_row *const row = find_command(words[0]);
    if (row == nullptr || !takes_what_was_given(*row, line) ||
        !parse_arguments(*row, words.subspan(1), line.options)) {
        return false;
    }
    line.options.command = row->command;
    if (row->command == velmctl_command::locate && !line.options.wait_s.has_value()) {
        line.options.wait_s = line.options.timeout_s;
    }
    return true;
}

} // namespace

std::optional<velmctl_options> velmctl_options_parse(int argc, char *argv[])
{
    parsed line;
    for (int letter = 0; (letter = getopt_long(argc, argv, "hvc:", long_options, nullptr)) != -1;) {
        if (letter == 'h' || letter == 'v') {
            return velmctl_options{.command = letter == 'h' ? velmctl_command::help
                                                            : velmctl_command::version};
        }
        if (!apply_option(letter, line)) {
            return std::nullopt;
        }
    }
    const std::span<char *const> words{argv + optind, argv + argc};
    if (!finish_command(words, line)) {
        return std::nullopt;
    }
    return line.options;
}
