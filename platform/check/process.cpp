#include "process.h"

#include <dirent.h>
#include <dm.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <set>
#include <string>
#include <utility>

#include "report.h"

namespace {

struct module_state {
    std::set<int> open_before; // descriptors that a started program would get
};
module_state state;

std::set<int> numbers_in(const char *path)
{
    std::set<int> numbers;
    DIR *const directory = opendir(path);
    if (directory == nullptr) {
        return numbers;
    }
    while (const dirent *const entry = readdir(directory)) {
        if (entry->d_name[0] != '.') {
            numbers.insert(static_cast<int>(std::strtol(entry->d_name, nullptr, 10)));
        }
    }
    closedir(directory);
    return numbers;
}

std::set<int> inherited_descriptors()
{
    std::set<int> inherited;
    for (const int number : numbers_in("/proc/self/fd")) {
        const int flags = fcntl(number, F_GETFD);
        if (flags >= 0 && (flags & FD_CLOEXEC) == 0) {
            inherited.insert(number);
        }
    }
    return inherited;
}

} // namespace

void check_process_begin()
{
    state.open_before = inherited_descriptors();
}

void check_process_end()
{
    const bool is_alone = numbers_in("/proc/self/task").size() <= 1;
    report(is_alone ? verdict::ok : verdict::fail, "the library starts no thread",
           is_alone ? "" : "the daemon calls it before it forks, and no thread survives that");
    std::set<int> open_now = inherited_descriptors();
    const bool is_clean = open_now == state.open_before;
    state.open_before = std::move(open_now); // told once
    report(is_clean ? verdict::ok : verdict::warn,
           "programs that the daemon starts inherit nothing",
           is_clean ? "" : "open files and sockets with O_CLOEXEC");
}

void check_registration()
{
    char name[] = "velm-platform-check";
    char *arguments[] = {name, nullptr};
    const int result = dm_register_app_restart_info(static_cast<int>(getpid()), 1, arguments, 0);
    report(result == 0 ? verdict::ok : verdict::fail,
           "dm_register_app_restart_info returns " + std::to_string(result),
           result == 0 ? "" : "the daemon would not be started again when it ends");
}
