/* Preloaded into a program under test: fails system calls, chosen by name and number.
 *
 * VELM_CALL_FAULT names a file of struct control that the test maps too. The test names a call and
 * which of them, counted from then on, fails with which error; once, or from that one on. Calls that
 * the C library makes within itself are not seen. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "control.h"

struct control {
    uint64_t counted;
    uint64_t from;  /* 0: none */
    uint64_t lasts; /* 0: that one only */
    uint64_t error;
    uint64_t failed;
    char call[32];
};

static struct control *control;

static void *next(const char *name)
{
    return dlsym(RTLD_NEXT, name);
}

static int fails(const char *call)
{
    if (control == NULL || control->from == 0 || strcmp(control->call, call) != 0) {
        return 0;
    }
    const uint64_t number = ++control->counted;
    if (number < control->from || (number > control->from && !control->lasts)) {
        return 0;
    }
    control->failed++;
    errno = (int)control->error;
    return 1;
}

static int ends_with(const char *path, const char *end)
{
    const size_t length = strlen(path), end_length = strlen(end);
    return length > end_length && strcmp(path + length - end_length, end) == 0;
}

/* The log, if it is a file, is not what is tested here. Nor is the configuration: without it the
 * daemon would run by its defaults, in the background and with the machine's own files. */
static int is_log(const char *path)
{
    return ends_with(path, ".log") || ends_with(path, "/velmd.conf");
}

static int is_log_file(int fd)
{
    char link[64], path[512];
    char *const at = link + sizeof "/proc/self/fd/" - 1;
    strcpy(link, "/proc/self/fd/");
    int digits = 1;
    for (int rest = fd; rest >= 10; rest /= 10) {
        ++digits;
    }
    for (int rest = fd, i = digits; i > 0; rest /= 10) {
        at[--i] = (char)('0' + rest % 10);
    }
    at[digits] = '\0';
    const ssize_t length = readlink(link, path, sizeof path - 1);
    path[length > 0 ? length : 0] = '\0';
    return is_log(path);
}

#define WRAPPED_UNLESS(failing, result, name, parameters, arguments)                               \
    result name parameters                                                                         \
    {                                                                                              \
        static result(*real) parameters;                                                           \
        if (real == NULL) {                                                                        \
            void *const found = next(#name);                                                       \
            memcpy(&real, &found, sizeof found);                                                   \
        }                                                                                          \
        return (failing) ? (result)-1 : real arguments;                                            \
    }

#define WRAPPED(result, name, parameters, arguments)                                               \
    WRAPPED_UNLESS(fails(#name), result, name, parameters, arguments)

#define WRAPPED_FILE(result, name, call, parameters, arguments)                                    \
    WRAPPED_UNLESS(control != NULL && !is_log_file(fd) && fails(call), result, name, parameters,   \
                   arguments)

WRAPPED(int, socket, (int family, int type, int protocol), (family, type, protocol))
WRAPPED(int, bind, (int fd, const struct sockaddr *address, socklen_t length),
        (fd, address, length))
WRAPPED(int, listen, (int fd, int backlog), (fd, backlog))
WRAPPED(int, connect, (int fd, const struct sockaddr *address, socklen_t length),
        (fd, address, length))
WRAPPED(int, fsync, (int fd), (fd))
WRAPPED(int, renameat, (int from, const char *old, int to, const char *new), (from, old, to, new))
WRAPPED(ssize_t, getrandom, (void *bytes, size_t size, unsigned flags), (bytes, size, flags))
WRAPPED(ssize_t, send, (int fd, const void *bytes, size_t size, int flags),
        (fd, bytes, size, flags))
WRAPPED(ssize_t, recv, (int fd, void *bytes, size_t size, int flags), (fd, bytes, size, flags))
WRAPPED(int, epoll_ctl, (int epoll, int operation, int fd, struct epoll_event *event),
        (epoll, operation, fd, event))
WRAPPED(int, flock, (int fd, int operation), (fd, operation))
WRAPPED_FILE(ssize_t, write, "write", (int fd, const void *bytes, size_t size), (fd, bytes, size))
WRAPPED_FILE(ssize_t, writev, "write", (int fd, const struct iovec *parts, int count),
             (fd, parts, count))
WRAPPED_FILE(ssize_t, read, "read", (int fd, void *bytes, size_t size), (fd, bytes, size))
WRAPPED_FILE(ssize_t, readv, "read", (int fd, const struct iovec *parts, int count),
             (fd, parts, count))
WRAPPED_FILE(ssize_t, pread64, "read", (int fd, void *bytes, size_t size, off_t offset),
             (fd, bytes, size, offset))

/* How OpenSSL asks the kernel for random bytes. */
int getentropy(void *bytes, size_t size)
{
    static int (*real)(void *, size_t);
    if (real == NULL) {
        void *const found = next("getentropy");
        memcpy(&real, &found, sizeof found);
    }
    return fails("getrandom") ? -1 : real(bytes, size);
}

int accept4(int fd, struct sockaddr *address, socklen_t *length, int flags)
{
    static int (*real)(int, struct sockaddr *, socklen_t *, int);
    if (real == NULL) {
        void *const found = next("accept4");
        memcpy(&real, &found, sizeof found);
    }
    return fails("accept") ? -1 : real(fd, address, length, flags);
}

/* How OpenSSL opens keys and certificates, and the name service what it reads: the open within is not
 * seen. */
FILE *fopen(const char *path, const char *mode)
{
    static FILE *(*real)(const char *, const char *);
    if (real == NULL) {
        void *const found = next("fopen");
        memcpy(&real, &found, sizeof found);
    }
    return control != NULL && !is_log(path) && fails("open") ? NULL : real(path, mode);
}

FILE *fopen64(const char *path, const char *mode)
{
    return fopen(path, mode);
}

ssize_t pread(int fd, void *bytes, size_t size, off_t offset)
{
    return pread64(fd, bytes, size, offset);
}

#define WRAPPED_OPEN(name, first, forwarded)                                                       \
    {                                                                                              \
        static int(*real) first;                                                                   \
        if (real == NULL) {                                                                        \
            void *const found = next(name);                                                        \
            memcpy(&real, &found, sizeof found);                                                   \
        }                                                                                          \
        va_list rest;                                                                              \
        va_start(rest, flags);                                                                     \
        const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? va_arg(rest, mode_t) : 0;            \
        va_end(rest);                                                                              \
        return !is_log(path) && fails("open") ? -1 : real forwarded;                               \
    }

int open(const char *path, int flags,
         ...) WRAPPED_OPEN("open", (const char *, int, ...),
                           (path, flags, mode)) int open64(const char *path, int flags, ...)
    WRAPPED_OPEN("open64", (const char *, int, ...),
                 (path, flags, mode)) int openat(int directory, const char *path, int flags, ...)
        WRAPPED_OPEN("openat", (int, const char *, int, ...), (directory, path, flags, mode))

            __attribute__((constructor)) static void begin(void)
{
    const char *const path = getenv("VELM_CALL_FAULT");
    const char *const program = getenv("VELM_CALL_FAULT_PROGRAM");
    /* The commands that the program runs inherit the preload. */
    if (path == NULL || program == NULL || strcmp(program, program_invocation_short_name) != 0) {
        return;
    }
    control = control_of(path, sizeof *control);
}
