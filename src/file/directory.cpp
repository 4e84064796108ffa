#include "file/directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "handles/fd.h"

namespace {

/// False with ENOENT or ENOTDIR where there is none.
bool is_directory(const std::string &path)
{
    struct stat found = {};
    if (stat(path.c_str(), &found) != 0) {
        return false;
    }
    errno = ENOTDIR;
    return S_ISDIR(found.st_mode);
}

bool sync_directory(const std::string &path)
{
    const unique_fd directory{open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    return directory && fsync(directory.get()) == 0;
}

bool make_one(const std::string &path, mode_t mode, directory_sync sync)
{
    if (is_directory(path)) {
        return true;
    }
    if (mkdir(path.c_str(), mode) != 0) {
        // Somebody else may have made it first.
        return errno == EEXIST && is_directory(path);
    }
    return sync == directory_sync::none || sync_directory(parent_directory(path));
}

} // namespace

std::string parent_directory(std::string_view path)
{
    const std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
        return ".";
    }
    return std::string{path.substr(0, slash == 0 ? 1 : slash)};
}

bool make_directories(const std::string &path, mode_t mode_above, mode_t mode, directory_sync sync)
{
    if (is_directory(path)) {
        return true;
    }
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        if (!make_one(path.substr(0, slash), mode_above, sync)) {
            return false;
        }
    }
    return make_one(path, mode, sync);
}
