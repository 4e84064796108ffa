#include "host_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "file/directory.h"

namespace {

constexpr long lock_timeout_us = 5'000'000;
constexpr long lock_pause_us_min = 50;
constexpr long lock_pause_us_max = 2'000;

struct module_state {
    bool holder_is_stuck = false; // a lock has not been given in time
};
module_state state;

/// What root sets is for a daemon that may be another user. A root that may not give files away, in a
/// container for example, keeps them.
void give_to_owner_of(int directory, int file)
{
    struct stat found {};
    if (geteuid() == 0 && fstat(directory, &found) == 0 && found.st_uid != 0) {
        const int rc = fchown(file, found.st_uid, found.st_gid);
        (void)rc;
    }
}

} // namespace

int host_directory_make(const std::string &path, mode_t mode)
{
    return make_directories(path, 0755, mode, directory_sync::each) ? 0 : errno;
}

int host_directory_open(const std::string &path, unique_fd &directory)
{
    directory.reset(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory ? 0 : errno;
}

int host_file_read(int file, off_t from, off_t to, host_bytes &bytes)
{
    bytes.resize(static_cast<std::size_t>(std::max<off_t>(to - from, 0)));
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count =
            pread(file, bytes.data() + done, bytes.size() - done, from + static_cast<off_t>(done));
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        if (count == 0) {
            break;
        }
        done += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    bytes.resize(done);
    return 0;
}

int host_file_write(int file, std::span<const std::uint8_t> bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = write(file, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return 0;
}

bool host_is_want_of_room(int rc)
{
    return rc == ENOSPC || rc == EDQUOT;
}

int host_file_replace(int directory, const std::string &name, std::span<const std::uint8_t> bytes,
                      unique_fd &file)
{
    const std::string temporary = name + ".tmp";
    // A temporary left by a killed writer may be what fills the disk, so it goes first.
    unlinkat(directory, temporary.c_str(), 0);
    file.reset(openat(directory, temporary.c_str(),
                      O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file) {
        return errno;
    }
    give_to_owner_of(directory, file.get());
    int rc = host_file_write(file.get(), bytes);
    if (rc == 0 && fsync(file.get()) != 0) {
        rc = errno;
    }
    if (rc == 0 && renameat(directory, temporary.c_str(), directory, name.c_str()) != 0) {
        rc = errno;
    }
    if (rc != 0) {
        unlinkat(directory, temporary.c_str(), 0);
        file.reset();
    }
    return rc;
}

int host_file_lock(int file, int operation)
{
    long waited_us = state.holder_is_stuck ? lock_timeout_us : 0;
    long pause_us = lock_pause_us_min;
    while (flock(file, operation | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return errno;
        }
        if (waited_us >= lock_timeout_us) {
            state.holder_is_stuck = true;
            return ETIMEDOUT;
        }
        const timespec pause{0, pause_us * 1000};
        nanosleep(&pause, nullptr);
        waited_us += pause_us;
        pause_us = std::min(2 * pause_us, lock_pause_us_max);
    }
    state.holder_is_stuck = false;
    return 0;
}
