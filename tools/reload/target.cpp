#include "tools/reload/target.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>

namespace {

constexpr char name_of_daemon[] = "velmd";

/// At most what a pid or a process's name needs; nothing when it cannot be read.
std::optional<std::string> read_short(const std::string &path)
{
    const unique_fd file{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
    std::array<char, 32> text{};
    const ssize_t length = file ? read(file.get(), text.data(), text.size()) : -1;
    return length < 0 ? std::nullopt
                      : std::optional{std::string{text.data(), static_cast<std::size_t>(length)}};
}

/// Its own name: that of its file would differ after an upgrade.
bool is_daemon(pid_t pid)
{
    return read_short("/proc/" + std::to_string(pid) + "/comm") ==
           std::string{name_of_daemon} + '\n';
}

int open_process(pid_t pid)
{
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

} // namespace

bool reload_target::hold(pid_t pid, std::string &problem)
{
    pid_ = pid;
    process_.reset(open_process(pid));
    const bool is_gone = !process_ && errno == ESRCH;
    if (is_gone || kill(pid, 0) != 0) {
        problem = "process " + std::to_string(pid) + ": " + std::strerror(is_gone ? ESRCH : errno);
        return false;
    }
    if (!is_daemon(pid)) {
        problem = "process " + std::to_string(pid) + " is not velmd: it gets no signal";
        return false;
    }
    return true;
}

bool reload_target::tell_to_reload(std::string &problem) const
{
    const long rc = process_ ? syscall(SYS_pidfd_send_signal, process_.get(), SIGHUP, nullptr, 0)
                             : kill(pid_, SIGHUP);
    if (rc != 0) {
        problem = "process " + std::to_string(pid_) + ": " + std::strerror(errno);
    }
    return rc == 0;
}

bool reload_target::has_ended() const
{
    if (!process_) {
        return kill(pid_, 0) != 0 && errno == ESRCH;
    }
    pollfd ended{process_.get(), POLLIN, 0};
    return poll(&ended, 1, 0) > 0;
}

std::optional<pid_t> reload_pid_of_text(std::string_view text)
{
    pid_t pid = 0;
    const bool is_number =
        std::from_chars(text.data(), text.data() + text.size(), pid).ec == std::errc{};
    return is_number && pid > 1 ? std::optional{pid} : std::nullopt;
}

std::optional<pid_t> reload_pid_of_file(const std::string &path)
{
    const std::optional<std::string> text = read_short(path);
    return text.has_value() ? reload_pid_of_text(*text) : std::nullopt;
}
