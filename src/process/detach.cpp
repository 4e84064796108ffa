#include "process/detach.h"

#include <dm.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "main";

/// The caller of a second daemon for the same file learns of it by the status, for it is in the
/// foreground still.
velm_pid_file claim_pid_file(const char *path)
{
    velm_pid_file claimed = velm_pid_file_claim(path);
    if (claimed.is_held_by_other) {
        LOG_ERROR("%s - %s is held by pid %ld", "daemonize", path, claimed.holder);
        std::fprintf(stderr, "velmd: %s is held by pid %ld\n", path, claimed.holder);
        std::exit(EXIT_FAILURE);
    }
    if (claimed.mode_was != 0) {
        LOG_WARN("%s - %s had mode %o: now no more than 644", "daemonize", path, claimed.mode_was);
    }
    return claimed;
}

} // namespace

velm_pid_file daemonize(const char *pid_path)
{
    if (getppid() == 1) {
        return {};
    }
    if (pid_path == nullptr || *pid_path == '\0') {
        std::exit(EXIT_FAILURE);
    }
    velm_pid_file claimed = claim_pid_file(pid_path);
    const pid_t pid = fork();
    if (pid < 0) {
        std::exit(EXIT_FAILURE);
    }
    if (pid > 0) {
        std::exit(EXIT_SUCCESS);
    }
    if (setsid() < 0 || chdir("/") != 0 || !velm_pid_file_write(claimed)) {
        std::exit(EXIT_FAILURE);
    }
    return claimed;
}

void process_register_for_restart(velm_command_line &command_line)
{
    std::vector<char *> arguments;
    for (std::string &argument : command_line.restart_arguments) {
        arguments.push_back(argument.data());
    }
    arguments.push_back(nullptr);
    const int rc = dm_register_app_restart_info(
        static_cast<int>(getpid()), static_cast<int>(arguments.size() - 1), arguments.data(), 0);
    if (rc != 0) {
        LOG_ERROR(
            "%s - nobody will start the daemon again: dm_register_app_restart_info failed: %d",
            __func__, rc);
    }
}
