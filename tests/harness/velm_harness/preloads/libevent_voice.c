/* Preloaded into a daemon under test: makes libevent say what it says when something is wrong. When
 * the loop is made it warns, or, with VELM_LIBEVENT=broken, tells that it cannot go on. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

struct event_base;
struct event_config;
typedef struct event_base *make_function(const struct event_config *);
typedef void warn_function(const char *format, ...);
typedef void break_function(int status, const char *format, ...);

static void find(void *function, size_t size, const char *name)
{
    void *const found = dlsym(RTLD_NEXT, name);
    if (found == NULL) {
        abort();
    }
    memcpy(function, &found, size);
}

struct event_base *event_base_new_with_config(const struct event_config *config)
{
    make_function *make;
    warn_function *warn;
    break_function *end;
    find(&make, sizeof make, "event_base_new_with_config");
    find(&warn, sizeof warn, "event_warnx");
    find(&end, sizeof end, "event_errx");
    const char *const what = getenv("VELM_LIBEVENT");
    if (what != NULL && strcmp(what, "broken") == 0) {
        end(77, "cannot go on");
    }
    warn("a warning\nof the %s", "library");
    return make(config);
}
