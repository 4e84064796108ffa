/// velm-platform-check: does a platform library keep the contract of platform/include? A maker links it
/// with his library and runs it on the device.

#include <nvram.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "process.h"
#include "report.h"
#include "settings.h"

namespace {

constexpr unsigned longest_s = 120;
constexpr int exit_usage = 2;

struct process_state {
    const char *read_before_fork = nullptr; // not freed: whether it may be is looked at later
};
process_state state;

/// All that the daemon does after its fork.
void check_all(const char *program, bool registers)
{
    alarm(longest_s);
    check_ownership();
    if (report_is_good()) {
        check_absent();
        check_values();
        check_room();
        check_other_process(program);
        check_speed();
        check_commit();
        (void)nvram_set(check_setting, "");
        (void)nvram_commit();
    }
    check_process_end();
    if (registers) {
        check_registration();
    }
}

/// As the daemon does it: one setting is read, then comes the fork.
int check_across_fork(const char *program, bool registers)
{
    check_process_begin();
    state.read_before_fork = nvram_unf_get("zelkad_mode");
    check_process_end();
    const pid_t child = fork();
    if (child == 0) {
        check_all(program, registers);
        std::exit(report_is_good() ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        report(verdict::fail, "the library works after a fork",
               WTERMSIG(status) == SIGALRM ? "a call did not return within 120 s"
                                           : "a call ended the process; what it opened before the "
                                             "fork must not be needed after it");
        return EXIT_FAILURE;
    }
    return report_is_good() && WEXITSTATUS(status) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string_view option = argc > 1 ? argv[1] : "";
    if (option == "--is-seen") {
        return setting(check_setting) == "seen" ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    if (argc > 2 || (!option.empty() && option != "--register")) {
        std::fputs(
            "usage: velm-platform-check [--register]\n"
            "Looks whether the platform library keeps its contract with velmd. Sets, commits\n"
            "and empties settings zelkad_platform_check*. --register also registers this\n"
            "process with the process monitor. Exit: 0 good, 1 not, 2 usage.\n",
            stderr);
        return exit_usage;
    }
    const int result = check_across_fork(argv[0], !option.empty());
    std::puts(result == EXIT_SUCCESS ? "The platform library can be used."
                                     : "The platform library must be mended first.");
    return result;
}
