/* A vendor's library that breaks one rule of platform/include, the one that VENDOR_FAULT names. */

#define _POSIX_C_SOURCE 200809L

#include <dm.h>
#include <nvram.h>

#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

char *good_get(const char *name);
int good_set(const char *name, const char *value);
int good_commit(void);
int good_register(int pid, int argc, char **argv, int flags);

static int has_fault(const char *name)
{
    const char *fault = getenv("VENDOR_FAULT");
    return fault != NULL && strcmp(fault, name) == 0;
}

static void *wait_for_ever(void *argument)
{
    for (;;) {
        pause();
    }
    return argument;
}

static int has_set; /* this program has; one that it starts anew has not */

/* What a library may do at its first call. */
static void open_once(void)
{
    static int opened_by;
    pthread_t thread;
    if (opened_by != 0) {
        if (has_fault("forked") && opened_by != (int)getpid()) {
            abort(); /* what it opened is of another process */
        }
        return;
    }
    opened_by = (int)getpid();
    if (has_fault("thread")) {
        (void)pthread_create(&thread, NULL, wait_for_ever, NULL);
    }
    if (has_fault("descriptor")) {
        (void)open("/dev/null", O_RDONLY);
    }
}

/* Of the library's own memory, as a careless one gives it. */
static char *kept(char *value)
{
    static char rotating[4][4096];
    static unsigned next;
    if (value == NULL) {
        return NULL;
    }
    if (has_fault("own pointer")) {
        (void)snprintf(rotating[0], sizeof rotating[0], "%s", value);
        return rotating[0];
    }
    if (has_fault("rotating pointer")) {
        char *place = rotating[next++ % 4];
        (void)snprintf(place, sizeof rotating[0], "%s", value);
        return place;
    }
    return value;
}

char *nvram_unf_get(const char *name)
{
    char *value;
    open_once();
    if (has_fault("slow get")) {
        const struct timespec pause_of = {0, 1200000};
        (void)nanosleep(&pause_of, NULL);
    }
    value = has_fault("private") && !has_set ? NULL : good_get(name);
    if (value == NULL && has_fault("empty for absent")) {
        return strdup("");
    }
    if (value == NULL && has_fault("value for absent")) {
        return strdup("0");
    }
    return kept(value);
}

int nvram_set(const char *name, const char *value)
{
    char cut[256];
    open_once();
    if (has_fault("set fails")) {
        return -1;
    }
    if (has_fault("room") && strncmp(name, "zelkad_platform_check_4", 23) == 0) {
        return -1;
    }
    if (has_fault("short values")) {
        (void)snprintf(cut, sizeof cut, "%s", value);
        return good_set(name, cut);
    }
    if (has_fault("quotes") && strchr(value, '"') != NULL) {
        return -1;
    }
    has_set = 1;
    return good_set(name, value);
}

int nvram_commit(void)
{
    if (has_fault("commit fails")) {
        return 7;
    }
    if (has_fault("slow commit")) {
        const struct timespec pause_of = {0, 250000000};
        (void)nanosleep(&pause_of, NULL);
    }
    return good_commit();
}

int dm_register_app_restart_info(int pid, int argc, char **argv, int flags)
{
    return has_fault("registration") ? 3 : good_register(pid, argc, argv, flags);
}
