#include "file/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "handles/fd.h"

stdio_file open_regular_file(const char *path)
{
    if (path == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    // Non-blocking, since opening a FIFO waits for its writer; of no effect on a regular file.
    unique_fd fd{::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0) {
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return nullptr;
    }
    stdio_file file{opened_stream(::fdopen(fd.get(), "r"))};
    if (file != nullptr) {
        (void)fd.release();
    }
    return file;
}
