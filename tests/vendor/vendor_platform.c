/* nvram over a text file of NAME=VALUE lines, named by VENDOR_NVRAM; each commit adds a line to
   "<file>.commits". Registrations go to VENDOR_REGISTRY as "pid flags argv[0] argv[1] ...". Enough
   for a test: one process, no newlines in values. */

#define _POSIX_C_SOURCE 200809L

#include <dm.h>
#include <nvram.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static FILE *open_store(const char *suffix, const char *mode)
{
    const char *path = getenv("VENDOR_NVRAM");
    char name[4096];
    if (path == NULL || snprintf(name, sizeof name, "%s%s", path, suffix) >= (int)sizeof name) {
        return NULL;
    }
    return fopen(name, mode);
}

/* The value in a line that is of this name, else NULL. */
static char *value_in_line(char *line, const char *name)
{
    const size_t length = strlen(name);
    line[strcspn(line, "\n")] = '\0';
    if (strncmp(line, name, length) != 0 || line[length] != '=') {
        return NULL;
    }
    return line + length + 1;
}

char *nvram_unf_get(const char *name)
{
    FILE *store = open_store("", "r");
    char *line = NULL;
    size_t size = 0;
    char *found = NULL;
    if (store == NULL) {
        return NULL;
    }
    /* The last line of a name counts. */
    while (getline(&line, &size, store) > 0) {
        const char *value = value_in_line(line, name);
        if (value != NULL) {
            free(found);
            found = strdup(value);
        }
    }
    free(line);
    fclose(store);
    return found;
}

int nvram_set(const char *name, const char *value)
{
    FILE *store = open_store("", "a");
    if (store == NULL) {
        return -1;
    }
    fprintf(store, "%s=%s\n", name, value);
    return fclose(store);
}

int nvram_commit(void)
{
    FILE *commits = open_store(".commits", "a");
    if (commits == NULL) {
        return -1;
    }
    fputs("commit\n", commits);
    return fclose(commits);
}

int dm_register_app_restart_info(int pid, int argc, char **argv, int flags)
{
    const char *path = getenv("VENDOR_REGISTRY");
    FILE *registry = path != NULL ? fopen(path, "a") : NULL;
    if (registry == NULL) {
        return -1;
    }
    fprintf(registry, "%d %d", pid, flags);
    for (int i = 0; i < argc; ++i) {
        fprintf(registry, " %s", argv[i]);
    }
    fputc('\n', registry);
    return fclose(registry);
}
