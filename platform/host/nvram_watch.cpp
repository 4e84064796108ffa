#include "nvram_watch.h"

#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cstdint>

namespace {

constexpr std::uint32_t every_change =
    IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;

/// What has happened does not matter, only that it is not told again.
void events_drop(int events)
{
    std::array<char, 4096> dropped;
    while (read(events, dropped.data(), dropped.size()) > 0) {
    }
}

} // namespace

bool nvram_watch::is_quiet()
{
    int waiting = 0;
    settled_ = settled_ && ioctl(events_.get(), FIONREAD, &waiting) == 0 && waiting == 0;
    return settled_;
}

void nvram_watch::begin(const std::string &directory)
{
    settled_ = false;
    if (!events_) {
        events_.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    }
    // Of a directory that is watched already it gives the number again; another one may have come to
    // this path.
    const int found =
        inotify_add_watch(events_.get(), directory.c_str(), every_change | IN_ONLYDIR);
    if (found != directory_ && directory_ >= 0) {
        inotify_rm_watch(events_.get(), directory_);
    }
    directory_ = found;
    events_drop(events_.get()); // that the first one is watched no more is told too
}

void nvram_watch::settle()
{
    settled_ = directory_ >= 0;
}
