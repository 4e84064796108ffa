#include "launch/process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "handles/exhaustion.h"
#include "logger/common_logger.h"

namespace {

constexpr char log_category[] = "launch";
constexpr std::size_t chunk_size = 1024;
constexpr std::size_t output_max = std::size_t{1024} * 1024; // nothing that we run prints a page
constexpr useconds_t wait_step_us = 100;
constexpr char shell_path[] = "/bin/sh";

/// What a child gets in place of ours: its standard output, a process group that can be ended whole,
/// and no signal blocked or ignored.
class spawn_settings {
  public:
    explicit spawn_settings(int output)
    {
        posix_spawn_file_actions_init(&actions_);
        posix_spawnattr_init(&attributes_);
        const int rc = posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
        memory_is_exhausted_if(rc == ENOMEM);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes_, &signals);
        sigaddset(&signals, SIGPIPE);
        posix_spawnattr_setsigdefault(&attributes_, &signals);
        posix_spawnattr_setpgroup(&attributes_, 0);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK |
                                                   POSIX_SPAWN_SETSIGDEF);
    }
    ~spawn_settings()
    {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    spawn_settings(const spawn_settings &) = delete;
    spawn_settings &operator=(const spawn_settings &) = delete;

    /// The shell's number; nothing when it could not be started, and errno.
    pid_t start(const char *command)
    {
        std::string name{"sh"};
        std::string option{"-c"};
        std::string text{command};
        char *const arguments[] = {name.data(), option.data(), text.data(), nullptr};
        pid_t shell = 0;
        errno = posix_spawn(&shell, shell_path, &actions_, &attributes_, arguments, environ);
        return errno == 0 ? shell : 0;
    }

  private:
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
};

} // namespace

/// The pipe's reading end never blocks; the other one, the command's output, does as usual.
std::unique_ptr<common_launch_process> common_launch_process_start(const char *command)
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return nullptr;
    }
    unique_fd reader{ends[0]};
    const unique_fd writer{ends[1]};
    if (fcntl(reader.get(), F_SETFL, O_NONBLOCK) != 0) {
        return nullptr;
    }
    const pid_t shell = spawn_settings{writer.get()}.start(command);
    return shell == 0 ? nullptr : std::make_unique<common_launch_process>(shell, std::move(reader));
}

common_launch_process::common_launch_process(pid_t shell, unique_fd output)
    : shell_{shell}, output_{std::move(output)}, end_{std::chrono::steady_clock::now() +
                                                      common_launch_time}
{
}

common_launch_process::~common_launch_process()
{
    if (shell_ != 0) {
        kill(-shell_, SIGKILL);
        waitpid(shell_, nullptr, 0);
    }
}

bool common_launch_process::read()
{
    while (!is_at_end_) {
        const std::size_t before = text_.size();
        text_.resize(before + chunk_size);
        const ssize_t got = ::read(output_.get(), &text_[before], chunk_size);
        const int error = got < 0 ? errno : 0;
        text_.resize(before + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (error == EAGAIN) {
            return false;
        }
        error_ = error == EINTR ? 0 : error;
        error_ = text_.size() > output_max ? EFBIG : error_;
        is_at_end_ = got == 0 || error_ != 0;
    }
    return true;
}

bool common_launch_process::read_to_end()
{
    using std::chrono::milliseconds;
    while (!read()) {
        const auto left = std::chrono::ceil<milliseconds>(end_ - std::chrono::steady_clock::now());
        pollfd readable{output_.get(), POLLIN, 0};
        if (left <= milliseconds{0} || poll(&readable, 1, static_cast<int>(left.count())) == 0) {
            LOG_ERROR("Command takes too long - ended");
            return false;
        }
    }
    if (error_ != 0) {
        LOG_ERROR("fread failed: %s", std::strerror(error_));
    }
    return error_ == 0;
}

bool common_launch_process::has_ended()
{
    if (shell_ == 0) {
        return true;
    }
    const pid_t ended = waitpid(shell_, &status_, WNOHANG);
    if (ended == 0) {
        return false;
    }
    wait_error_ = ended < 0 ? errno : 0;
    shell_ = 0;
    return true;
}

/// A shell ends within microseconds of its output, or much later if it has closed its output itself.
std::optional<int> common_launch_process::wait()
{
    while (!has_ended()) {
        if (std::chrono::steady_clock::now() >= end_) {
            errno = ETIMEDOUT;
            return std::nullopt; // letting go ends it
        }
        usleep(wait_step_us);
    }
    errno = wait_error_;
    return wait_error_ != 0 ? std::nullopt : std::optional{status_};
}
