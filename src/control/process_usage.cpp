#include "control/process_usage.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "file/regular_file.h"
#include "handles/handle.h"

namespace {

using directory_ptr = handle<DIR, closedir>;

double cpu_seconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

std::uint64_t resident_bytes()
{
    const stdio_file file = open_regular_file("/proc/self/statm");
    char line[128]; // pages: of the program, resident, and more
    if (file == nullptr || std::fgets(line, sizeof line, file.get()) == nullptr) {
        return 0;
    }
    char *end = line;
    (void)std::strtoull(line, &end, 10);
    return std::strtoull(end, nullptr, 10) * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

std::uint64_t open_descriptors()
{
    const directory_ptr directory{opendir("/proc/self/fd")};
    std::uint64_t count = 0;
    while (directory != nullptr && readdir(directory.get()) != nullptr) {
        ++count;
    }
    return count < 3 ? 0 : count - 3; // ".", ".." and the one that reads
}

} // namespace

control_process_usage control_process_usage_now()
{
    return {cpu_seconds(), resident_bytes(), open_descriptors()};
}
