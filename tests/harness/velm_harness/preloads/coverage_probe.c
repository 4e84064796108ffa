/* Preloaded into a coverage build under test: SIGTERM writes the counters, then ends the process as
 * ever. The daemon never ends in an orderly way, so nothing else would write them.
 *
 * SIGTERM is let through only while the program waits for events. There nothing is half done, so
 * that writing files is safe. */
#define _GNU_SOURCE
#include <signal.h>
#include <stddef.h>
#include <sys/epoll.h>

extern void __gcov_dump(void) __attribute__((weak));

static volatile sig_atomic_t told_to_end;
static int active;

static void remember(int signal_number)
{
    (void)signal_number;
    told_to_end = 1;
}

static void change_mask(int how)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigprocmask(how, &signals, NULL);
}

static void write_counters_and_end(void)
{
    __gcov_dump();
    signal(SIGTERM, SIG_DFL);
    raise(SIGTERM);
    change_mask(SIG_UNBLOCK);
}

int epoll_wait(int epoll, struct epoll_event *events, int count, int timeout)
{
    sigset_t mask;
    sigprocmask(SIG_BLOCK, NULL, &mask);
    if (active) {
        sigdelset(&mask, SIGTERM);
    }
    const int got = epoll_pwait(epoll, events, count, timeout, &mask);
    if (told_to_end) {
        write_counters_and_end();
    }
    return got;
}

__attribute__((constructor)) static void watch(void)
{
    /* Only the program itself: the commands that it runs inherit the preload. */
    if (__gcov_dump != NULL) {
        active = 1;
        struct sigaction action = {.sa_handler = remember};
        sigaction(SIGTERM, &action, NULL);
        change_mask(SIG_BLOCK);
    }
}
