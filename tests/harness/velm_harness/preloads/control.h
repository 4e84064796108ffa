#ifndef VELM_PRELOADS_CONTROL_H
#define VELM_PRELOADS_CONTROL_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

/* The file by which the test and the library talk, as memory that both see. A test whose file cannot be
   used must not pass for one in which nothing failed, so the program ends. */
static void *control_of(const char *path, size_t size)
{
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    void *const mapped =
        fd < 0 ? MAP_FAILED : mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) {
        _exit(126);
    }
    close(fd);
    return mapped;
}

#endif
