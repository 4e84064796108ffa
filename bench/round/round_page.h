#ifndef VELM_ROUND_PAGE_H
#define VELM_ROUND_PAGE_H

#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

/* What a preloaded library shares with the benchmark: the beginning of the file that a variable of the
 * environment names. Null when there is none. `access` is O_RDONLY or O_RDWR. */
static void *round_page(const char *variable, size_t size, int access)
{
    const char *name = getenv(variable);
    const int fd = name != NULL ? open(name, access | O_CLOEXEC) : -1;
    if (fd < 0) {
        return NULL;
    }
    const int protection = access == O_RDWR ? PROT_READ | PROT_WRITE : PROT_READ;
    void *const page = mmap(NULL, size, protection, MAP_SHARED, fd, 0);
    close(fd);
    return page == MAP_FAILED ? NULL : page;
}

#endif
