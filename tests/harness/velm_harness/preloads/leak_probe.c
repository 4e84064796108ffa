/* Preloaded into an AddressSanitizer build under test: SIGUSR2 makes it look for leaks and go on.
 * The daemon never ends in an orderly way, so the check at exit would never run. The signal may come
 * in the middle of an allocation, whose locks the check needs: so it is made before the loop waits.
 *
 * It also stands between the sanitizer and libfaketime, which is preloaded behind it: see clock_gettime. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

extern int __lsan_do_recoverable_leak_check(void) __attribute__((weak));

typedef int wait_function(int, struct epoll_event *, int, int);
typedef int clock_function(clockid_t, struct timespec *);

static volatile sig_atomic_t wanted;
static clock_function *next_clock; /* libfaketime's, or the C library's */

static void want_check(int signal_number)
{
    (void)signal_number;
    wanted = 1;
}

static void look_for_leaks(void)
{
    const char *done = getenv("VELM_LEAK_PROBE_DONE");
    if (done == NULL) {
        return;
    }
    const int leaks = __lsan_do_recoverable_leak_check();
    const int fd = open(done, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0) {
        (void)!write(fd, leaks ? "leaks" : "clean", 5);
        close(fd);
    }
}

/* The sanitizer's allocator asks for the time when it takes the first block of a size, under that size's lock.
 * libfaketime, which is not ready yet, looks for functions that the C library does not have. The text of that
 * failure is a block as well: of the same size it waits for the lock for ever. Whether that size was in use
 * before depends on the length of the program's path. So until all libraries are ready the time is the
 * kernel's. */
int clock_gettime(clockid_t clock, struct timespec *time)
{
    return next_clock == NULL ? (int)syscall(SYS_clock_gettime, clock, time)
                              : next_clock(clock, time);
}

/* The signal wakes it; one that came just before is served at the loop's next turn. */
int epoll_wait(int epoll, struct epoll_event *events, int size, int timeout)
{
    static wait_function *wait_for_events;
    if (wait_for_events == NULL) {
        void *const found = dlsym(RTLD_NEXT, "epoll_wait");
        memcpy(&wait_for_events, &found, sizeof found);
    }
    if (wanted) {
        wanted = 0;
        look_for_leaks();
    }
    return wait_for_events(epoll, events, size, timeout);
}

__attribute__((constructor)) static void watch(void)
{
    void *const found = dlsym(RTLD_NEXT, "clock_gettime");
    memcpy(&next_clock, &found, sizeof found);
    /* Only the program itself: the commands that it runs inherit the preload. */
    if (__lsan_do_recoverable_leak_check != NULL) {
        struct sigaction action = {.sa_handler = want_check};
        sigaction(SIGUSR2, &action, NULL);
    }
}
