/* Preloaded into an AddressSanitizer build under test: SIGUSR2 makes it look for leaks and go on.
 * The daemon never ends in an orderly way, so the check at exit would never run. */
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <unistd.h>

extern int __lsan_do_recoverable_leak_check(void) __attribute__((weak));

static void look_for_leaks(int signal_number)
{
    (void)signal_number;
    const char *done = getenv("VELM_LEAK_PROBE_DONE");
    if (__lsan_do_recoverable_leak_check == NULL || done == NULL) {
        return;
    }
    const int leaks = __lsan_do_recoverable_leak_check();
    const int fd = open(done, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0) {
        (void)!write(fd, leaks ? "leaks" : "clean", 5);
        close(fd);
    }
}

__attribute__((constructor)) static void watch(void)
{
    /* Only the program itself: the commands that it runs inherit the preload. */
    if (__lsan_do_recoverable_leak_check != NULL) {
        struct sigaction action = {.sa_handler = look_for_leaks, .sa_flags = SA_RESTART};
        sigaction(SIGUSR2, &action, NULL);
    }
}
