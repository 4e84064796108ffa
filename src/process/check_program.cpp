#include "process/check_program.h"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

/// With the "/" at its end.
std::string directory_of_this_program()
{
    char path[PATH_MAX] = {};
    const std::string program =
        readlink("/proc/self/exe", path, sizeof path - 1) > 0 ? path : std::string{};
    return program.substr(0, program.rfind('/') + 1);
}

} // namespace

int process_become_check(int argc, char **argv)
{
    const std::string directory = directory_of_this_program();
    char command[] = "check";
    for (const char *const place : {"velmctl", "../bin/velmctl"}) {
        std::string program = directory + place;
        std::vector<char *> arguments{program.data(), command};
        if (argc > 1) {
            arguments.insert(arguments.end(), argv + 1, argv + argc);
        }
        arguments.push_back(nullptr);
        execv(program.c_str(), arguments.data());
    }
    std::fprintf(stderr, "velmd: -t needs velmctl, which is neither in %s nor in %s../bin/\n",
                 directory.c_str(), directory.c_str());
    return EXIT_FAILURE;
}
