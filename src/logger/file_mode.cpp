#include "logger/file_mode.h"

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t rights = 07777;

} // namespace

mode_t file_mode_narrow(int file, mode_t most)
{
    struct stat found {};
    if (fstat(file, &found) != 0 || !S_ISREG(found.st_mode) || found.st_uid != geteuid()) {
        return 0;
    }
    const mode_t had = found.st_mode & rights;
    return (had & ~most) != 0 && fchmod(file, had & most) == 0 ? had : 0;
}
