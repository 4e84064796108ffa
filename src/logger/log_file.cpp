#include "logger/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "handles/fd.h"
#include "logger/file_mode.h"

namespace {

constexpr mode_t log_file_mode = 0640; // what is logged at TRACE is a secret

/// Without waiting, since a FIFO opens when it has a reader: a line that cannot be written is lost. Not
/// as a stream: that would take memory, and the line may be the one that tells there is none.
unique_fd open_log(const char *name)
{
    return unique_fd{::open(name, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY,
                            log_file_mode)};
}

bool is_full(int file, std::uint64_t max_size, std::size_t more, struct stat &found)
{
    return max_size != 0 && ::fstat(file, &found) == 0 && S_ISREG(found.st_mode) &&
           found.st_size > 0 && static_cast<std::uint64_t>(found.st_size) + more > max_size;
}

/// False when another process has put another file in its place meanwhile.
bool is_still_there(const char *name, const struct stat &found)
{
    struct stat now {};
    return ::stat(name, &now) == 0 && now.st_dev == found.st_dev && now.st_ino == found.st_ino;
}

/// The bound on its length holds before the wish to keep what is in it.
void empty(int file, int error)
{
    std::array<char, 128> text{};
    const int length =
        std::snprintf(text.data(), text.size(),
                      "log file cannot be renamed, so it was emptied: error %d\n", error);
    if (::ftruncate(file, 0) == 0 && length > 0) {
        log_file_write_all(file, {text.data(), static_cast<std::size_t>(length)});
    }
}

using previous_name = std::array<char, log_file_name_max + sizeof ".1">;

previous_name name_of_previous(const char *name)
{
    previous_name previous{};
    std::snprintf(previous.data(), previous.size(), "%s.1", name);
    return previous;
}

/// The file to go on with.
unique_fd begin_anew(const char *name, unique_fd file, const struct stat &found)
{
    const previous_name previous = name_of_previous(name);
    if (is_still_there(name, found) && ::rename(name, previous.data()) != 0) {
        empty(file.get(), errno);
        return file;
    }
    return open_log(name);
}

} // namespace

bool log_file_append(const char *name, std::uint64_t max_size, std::string_view line)
{
    unique_fd file = open_log(name);
    struct stat found {};
    if (file && is_full(file.get(), max_size, line.size(), found)) {
        file = begin_anew(name, std::move(file), found);
    }
    return file && log_file_write_all(file.get(), line);
}

mode_t log_file_narrow(const char *name)
{
    // Behind a link may lie what is not ours to change.
    constexpr int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW;
    const previous_name previous = name_of_previous(name);
    const unique_fd before{::open(previous.data(), flags)};
    const unique_fd file{::open(name, flags)};
    file_mode_narrow(before.get(), log_file_mode);
    return file_mode_narrow(file.get(), log_file_mode);
}

bool log_file_write_all(int file, std::string_view text)
{
    ssize_t written = 0;
    while (!text.empty() && (written = ::write(file, text.data(), text.size())) > 0) {
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return text.empty();
}
