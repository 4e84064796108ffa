/* Preloaded into velmd: time() runs ahead by as many seconds as the first eight bytes of the file
 * VELM_ROUND_CLOCK say. Nothing else changes, and a call costs what it always costs: the file is
 * mapped, and the time is the kernel's page. So rounds can follow one another although velmd
 * pushes only once a minute. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

static const volatile int64_t *ahead;

__attribute__((constructor(101))) static void find_file(void)
{
    const char *name = getenv("VELM_ROUND_CLOCK");
    const int fd = name != NULL ? open(name, O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0) {
        return;
    }
    void *const page = mmap(NULL, sizeof *ahead, PROT_READ, MAP_SHARED, fd, 0);
    if (page != MAP_FAILED) {
        ahead = page;
    }
    close(fd);
}

time_t time(time_t *out)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    const time_t moved = now.tv_sec + (ahead != NULL ? (time_t)*ahead : 0);
    if (out != NULL) {
        *out = moved;
    }
    return moved;
}
