#include "fakes/child_program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <string>

extern char **environ;

namespace {

unique_fd open_pipe(unique_fd &read_end)
{
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    read_end.reset(ends[0]);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    return unique_fd{ends[1]};
}

void drain(const unique_fd &from, std::string &to)
{
    std::array<char, 4096> buffer{};
    for (ssize_t size = 0; (size = read(from.get(), buffer.data(), buffer.size())) > 0;) {
        to.append(buffer.data(), static_cast<std::size_t>(size));
    }
}

/// A listener that is not close-on-exec would listen on in the child. Older C libraries have no
/// posix_spawn_file_actions_addclosefrom_np().
void close_the_others(posix_spawn_file_actions_t &actions)
{
    for (const auto &entry : std::filesystem::directory_iterator{"/proc/self/fd"}) {
        if (const int fd = std::stoi(entry.path().filename()); fd > STDERR_FILENO) {
            posix_spawn_file_actions_addclose(&actions, fd);
        }
    }
}

} // namespace

child_program::child_program(const std::vector<std::string> &arguments)
{
    std::vector<char *> argv;
    for (const std::string &argument : arguments) {
        argv.push_back(const_cast<char *>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const unique_fd out_end = open_pipe(out_);
    const unique_fd error_end = open_pipe(error_);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out_end.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, error_end.get(), STDERR_FILENO);
    close_the_others(actions);
    EXPECT_EQ(posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
}

child_program::~child_program()
{
    if (pid_ > 0 && !status_.has_value()) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

bool child_program::has_ended()
{
    drain(out_, out);
    drain(error_, error);
    int status = 0;
    if (!status_.has_value() && waitpid(pid_, &status, WNOHANG) == pid_) {
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        drain(out_, out);
        drain(error_, error);
    }
    return status_.has_value();
}

int child_program::exit_status() const
{
    return status_.value_or(-1);
}
