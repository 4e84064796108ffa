#include "process/pid_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "logger/file_mode.h"

namespace {

constexpr mode_t pid_file_mode = 0644;

/// What the holder wrote; 0 while it has not.
long read_pid(const char *path)
{
    const unique_fd file{open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    std::array<char, 32> text{}; // ends in a zero
    const ssize_t length = read(file.get(), text.data(), text.size() - 1);
    return length > 0 ? std::strtol(text.data(), nullptr, 10) : 0;
}

/// Behind a link may lie what is not ours to change.
mode_t narrow(const char *path)
{
    const unique_fd file{open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW)};
    return file_mode_narrow(file.get(), pid_file_mode);
}

/// Whoever may write into the folder could have the file of anybody emptied by a link.
int flags_for_link(const char *path)
{
    struct stat found {};
    const bool is_trusted = lstat(path, &found) == 0 && S_ISLNK(found.st_mode) &&
                            (found.st_uid == 0 || found.st_uid == geteuid());
    return is_trusted ? 0 : O_NOFOLLOW;
}

} // namespace

velm_pid_file velm_pid_file_claim(const char *path)
{
    const std::string absolute = *path == '/' ? path : std::string{"/"} + path;
    // Without waiting, since a FIFO opens when it has a reader.
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    unique_fd file{open(absolute.c_str(), flags | flags_for_link(absolute.c_str()), pid_file_mode)};
    struct stat found {};
    if (!file || fstat(file.get(), &found) != 0) {
        return {};
    }
    if (!S_ISREG(found.st_mode)) {
        return {std::move(file)};
    }
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        return {unique_fd{}, true, read_pid(absolute.c_str())};
    }
    if (ftruncate(file.get(), 0) != 0) {
        return {};
    }
    return {std::move(file), false, 0, narrow(absolute.c_str())};
}

bool velm_pid_file_write(const velm_pid_file &claimed)
{
    return dprintf(claimed.file.get(), "%ld\n", static_cast<long>(getpid())) > 0;
}
