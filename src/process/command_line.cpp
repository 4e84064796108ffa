#include "process/command_line.h"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "process/version.h"

namespace {

constexpr char options[] = "hvtc:i:n:s:m:b:";

void print_usage(const char *program)
{
    std::printf("Usage:\n");
    std::printf(" %s\n", program);
    std::printf(" %s -c path_to_config\n", program);
    std::printf(" %s -c path_to_config -i lan_ip_address -n lan_if_name -s serial_number -m "
                "mac_address -b bssids_list\n",
                program);
    std::printf("  (all parameters are optional)\n");
    std::printf("\n");
    std::printf(" %s -v\n", program);
    std::printf(" %s -h\n", program);
    if (isatty(STDOUT_FILENO) != 0) { // tools compare the text as it has always been
        std::printf(" %s -t -c path_to_config\n", program);
    }
}

void print_version(std::string_view program)
{
    const std::size_t slash = program.rfind('/');
    const std::string name{slash == std::string_view::npos ? program : program.substr(slash + 1)};
    std::printf("%s %i.%i.%i\n", name.c_str(), velm_version_major, velm_version_minor,
                velm_version_patch);
}

/// The daemon changes to "/" when it detaches, and reads the file again on every reload.
std::string absolute_path(const char *path)
{
    if (*path == '\0' || *path == '/') {
        return path;
    }
    char directory[PATH_MAX];
    if (getcwd(directory, sizeof directory) == nullptr) {
        return path;
    }
    return std::string{directory} + "/" + path;
}

/// What was seen beside the values.
struct option_count {
    const char *config_argument = nullptr; // the last one that a path of -c stands in, or is
    std::size_t config_offset = 0;         // where in it the path begins
    int all = 0;
    bool help = false;
    bool version = false;
    bool bad = false;
};

/// `argument` is the one that getopt has just taken: "-cPATH", or the path itself.
void take_option(int c, const char *argument, velm_command_line &given, option_count &seen)
{
    ++seen.all;
    switch (c) {
    case 'h':
        seen.help = true;
        break;
    case 'v':
        seen.version = true;
        break;
    case 'c':
        given.config_path = absolute_path(optarg);
        seen.config_argument = argument;
        seen.config_offset = static_cast<std::size_t>(optarg - argument);
        break;
    case 't':
        given.checks = true;
        break;
    case 'i':
        given.lan_ip_address = optarg;
        break;
    case 'n':
        given.lan_name = optarg;
        break;
    case 's':
        given.serial_number = optarg;
        break;
    case 'm':
        given.mac_address = optarg;
        break;
    case 'b':
        given.bssids = optarg;
        break;
    default:
        std::printf("unknown parameter: -%c\n", c);
        seen.bad = true;
        break;
    }
}

/// A program that was named without a directory was found by the shell; the kernel knows where.
std::string program_path(const char *name)
{
    char path[PATH_MAX] = {};
    const bool is_known = *name != '/' && readlink("/proc/self/exe", path, sizeof path - 1) > 0;
    return is_known ? path : name;
}

std::vector<std::string> restart_arguments(int argc, char **argv, const velm_command_line &given,
                                           const option_count &seen)
{
    std::vector<std::string> arguments{argv, argv + argc};
    if (argc > 0) {
        arguments[0] = program_path(argv[0]);
    }
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (argv[i] == seen.config_argument) {
            arguments[i].replace(seen.config_offset, std::string::npos, *given.config_path);
        }
    }
    return arguments;
}

} // namespace

velm_command_line velm_command_line_parse(int argc, char **argv)
{
    velm_command_line given;
    option_count seen;
    for (int c = 0; (c = getopt(argc, argv, options)) != -1;) {
        take_option(c, argv[optind - 1], given, seen);
    }
    if (seen.all == 1 && seen.help) {
        print_usage(argv[0]);
        std::exit(EXIT_SUCCESS);
    }
    if (seen.all == 1 && seen.version) {
        print_version(argv[0]);
        std::exit(EXIT_SUCCESS);
    }
    if (seen.bad) {
        std::printf("\n");
        print_usage(argv[0]);
        std::exit(EXIT_FAILURE);
    }
    given.restart_arguments = restart_arguments(argc, argv, given, seen);
    return given;
}

bool velm_command_line_asks_to_check(int argc, char **argv)
{
    const int diagnostics = std::exchange(opterr, 0);
    bool asks = false;
    for (int c = 0; (c = getopt(argc, argv, options)) != -1;) {
        asks = asks || c == 't';
    }
    opterr = diagnostics;
    optind = 0; // the C library's own reset
    return asks;
}
