/* Preloaded into a daemon under test: SIGUSR1 makes it write down how many events its loop holds,
 * timers and descriptors together, and go on. The name of the file is in VELM_EVENT_PROBE. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define COUNT_ADDED 4U /* EVENT_BASE_COUNT_ADDED */

struct event_base;
struct event_config;
typedef struct event_base *make_function(const struct event_config *);
typedef int count_function(struct event_base *, unsigned);

static struct event_base *watched;
static count_function *count_events;
static const char *file_name;

static void write_count(int signal_number)
{
    (void)signal_number;
    char text[16];
    const int length = snprintf(text, sizeof text, "%d\n", count_events(watched, COUNT_ADDED));
    const int fd = open(file_name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0) {
        (void)!write(fd, text, (size_t)length);
        close(fd);
    }
}

struct event_base *event_base_new_with_config(const struct event_config *config)
{
    void *found = dlsym(RTLD_NEXT, "event_base_new_with_config");
    make_function *make;
    memcpy(&make, &found, sizeof found);
    found = dlsym(RTLD_NEXT, "event_base_get_num_events");
    memcpy(&count_events, &found, sizeof found);
    file_name = getenv("VELM_EVENT_PROBE");
    watched = make(config);
    if (watched != NULL && count_events != NULL && file_name != NULL) {
        const struct sigaction action = {.sa_handler = write_count, .sa_flags = SA_RESTART};
        sigaction(SIGUSR1, &action, NULL);
    }
    return watched;
}
