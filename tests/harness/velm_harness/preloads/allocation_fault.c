/* Preloaded into velmd: fails allocations of it, one or from one on, and tells what became of it.
 *
 * VELM_ALLOCATION_FAULT names a file of struct control that the test maps too: it sets what is to
 * happen and reads what did. Counting begins when the program's own main is about to run.
 *
 * With `sweep` every chosen allocation is failed in a copy of the process, made by fork() right
 * there, which then goes on as the daemon would; the daemon itself waits for its end and goes on with
 * memory. So one run tries as many allocations as it makes. A copy that gets over the failure must
 * not act in the daemon's place, on the same sockets and the same store: it ends with
 * SURVIVED before it does, and a whole run of its own has to show what the daemon does then.
 *
 * The daemon has one thread. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "control.h"

enum { SURVIVED = 77, COPY_SECONDS = 20, FRAMES = 32, TRACE_SIZE = 4000 };

struct control {
    uint64_t counted; /* allocations so far */
    uint64_t from;    /* the first that fails, by its number; 0: none */
    uint64_t every;   /* 0: that one only; 1: all from it on; n: every n-th from it on */
    uint64_t sweep;   /* not 0: each in a copy of the process */
    uint64_t failed;
    uint64_t largest;       /* that was asked for, in bytes, whether it was had or not */
    char trace[TRACE_SIZE]; /* who asked for the last that failed, innermost first, one a line */
};

extern void *__libc_malloc(size_t);
extern void *__libc_calloc(size_t, size_t);
extern void *__libc_realloc(void *, size_t);
extern void *__libc_memalign(size_t, size_t);

static struct control *control;
static int busy;    /* in here already */
static int is_copy; /* and its allocation has failed */
static const char *control_path;
static char results[512];

/* Names what called us as LIBRARY FUNCTION-or-offset. */
static void note_trace(void)
{
    void *frames[FRAMES];
    const int count = backtrace(frames, FRAMES);
    size_t used = 0;
    control->trace[0] = '\0';
    Dl_info here = {0};
    dladdr(results, &here);
    for (int i = 0; i < count && used < TRACE_SIZE - 200; ++i) {
        Dl_info where;
        if (!dladdr(frames[i], &where) || where.dli_fbase == here.dli_fbase) {
            continue;
        }
        const char *const slash = strrchr(where.dli_fname, '/');
        const char *const name = slash != NULL ? slash + 1 : where.dli_fname;
        const unsigned long offset = (unsigned long)((char *)frames[i] - (char *)where.dli_fbase);
        used += (size_t)snprintf(control->trace + used, TRACE_SIZE - used, "%.60s %.100s+0x%lx\n",
                                 name, where.dli_sname != NULL ? where.dli_sname : "?", offset);
    }
}

/* Keeps the store as the copy left it, when it is not as the one before left it. */
static void keep_store(uint64_t number)
{
    static const char *const names[] = {"live", "committed.0", "committed.1"};
    enum { COUNT = sizeof names / sizeof *names };
    static struct stat kept[COUNT];
    const char *const store = getenv("VELM_NVRAM");
    struct stat now[COUNT];
    char path[1100], target[700];
    memset(now, 0, sizeof now);
    int differs = 0;
    for (int i = 0; store != NULL && i < COUNT; ++i) {
        snprintf(path, sizeof path, "%s/%s", store, names[i]);
        (void)!stat(path, &now[i]);
        differs |= now[i].st_ino != kept[i].st_ino || now[i].st_size != kept[i].st_size ||
                   now[i].st_mtim.tv_nsec != kept[i].st_mtim.tv_nsec;
    }
    if (!differs) {
        return;
    }
    memcpy(kept, now, sizeof kept);
    snprintf(target, sizeof target, "%s.stores/%llu", control_path, (unsigned long long)number);
    mkdir(target, 0700);
    for (int i = 0; i < COUNT; ++i) {
        static char bytes[1 << 16];
        snprintf(path, sizeof path, "%s/%s", store, names[i]);
        const int from = open(path, O_RDONLY | O_CLOEXEC);
        snprintf(path, sizeof path, "%s/%s", target, names[i]);
        const int to = from < 0 ? -1 : open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ssize_t got;
        while (to >= 0 && (got = read(from, bytes, sizeof bytes)) > 0) {
            (void)!write(to, bytes, (size_t)got);
        }
        close(to);
        close(from);
    }
}

static void append_result(uint64_t number, int status)
{
    char line[64];
    const int kind = WIFSIGNALED(status) ? WTERMSIG(status) : 1000 + WEXITSTATUS(status);
    const int length = snprintf(line, sizeof line, "%llu %d\n", (unsigned long long)number, kind);
    const int fd = open(results, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) {
        (void)!write(fd, line, (size_t)length);
        if (kind != SIGABRT || getenv("VELM_TRACE_ALL")) {
            (void)!write(fd, control->trace, strlen(control->trace));
        }
        close(fd);
    }
}

/* What the copy reads of a file must not be missing where the daemon reads on. */
static void stop_sharing_offsets(void)
{
    for (int fd = STDERR_FILENO + 1; fd < 64; ++fd) {
        struct stat found;
        const int flags = fcntl(fd, F_GETFL);
        if (flags < 0 || (flags & O_ACCMODE) != O_RDONLY || fstat(fd, &found) != 0 ||
            !S_ISREG(found.st_mode)) {
            continue;
        }
        char path[64];
        snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
        const off_t offset = lseek(fd, 0, SEEK_CUR);
        const int own = open(path, O_RDONLY | O_CLOEXEC);
        lseek(own, offset, SEEK_SET);
        dup3(own, fd, O_CLOEXEC);
        close(own);
    }
}

/* The copy returns 1 and goes on with the failure; the daemon 0, when the copy has ended. */
static int fails_in_a_copy(uint64_t number)
{
    const pid_t copy = fork();
    if (copy == 0) {
        is_copy = 1;
        signal(SIGALRM, SIG_DFL);
        alarm(COPY_SECONDS);
        stop_sharing_offsets();
        return 1;
    }
    int status = 0;
    while (copy > 0 && waitpid(copy, &status, 0) < 0 && errno == EINTR) {
    }
    append_result(number, copy > 0 ? status : -1);
    keep_store(number);
    return 0;
}

static int is_chosen(uint64_t number)
{
    const uint64_t from = control->from;
    if (from == 0 || number < from) {
        return 0;
    }
    return control->every == 0 ? number == from : (number - from) % control->every == 0;
}

static int fails(size_t size)
{
    if (control == NULL || busy || is_copy) {
        return 0;
    }
    if (size > control->largest) {
        control->largest = size;
    }
    const int before = errno;
    busy = 1;
    int failing = 0;
    const uint64_t number = ++control->counted;
    if (is_chosen(number)) {
        control->failed++;
        note_trace();
        failing = control->sweep ? fails_in_a_copy(number) : 1;
    }
    busy = 0;
    errno = failing ? ENOMEM : before;
    return failing;
}

void *malloc(size_t size)
{
    return fails(size) ? NULL : __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    size_t total;
    const int overflows = __builtin_mul_overflow(count, size, &total);
    return fails(overflows ? SIZE_MAX : total) ? NULL : __libc_calloc(count, size);
}

void *realloc(void *old, size_t size)
{
    /* realloc(old, 0) frees. */
    return (old == NULL || size != 0) && fails(size) ? NULL : __libc_realloc(old, size);
}

void *memalign(size_t alignment, size_t size)
{
    return fails(size) ? NULL : __libc_memalign(alignment, size);
}

void *aligned_alloc(size_t alignment, size_t size)
{
    return fails(size) ? NULL : __libc_memalign(alignment, size);
}

int posix_memalign(void **out, size_t alignment, size_t size)
{
    if (fails(size)) {
        return ENOMEM;
    }
    *out = __libc_memalign(alignment, size);
    return *out == NULL ? ENOMEM : 0;
}

/* What a copy must not do: end quietly instead. The log is written before, and by another call. */
static void end_copy(void)
{
    if (is_copy) {
        _exit(SURVIVED);
    }
}

static void *next(const char *name)
{
    const int was_busy = busy;
    busy = 1;
    void *const found = dlsym(RTLD_NEXT, name);
    busy = was_busy;
    return found;
}

#define NEXT(type, name)                                                                           \
    static type *real;                                                                             \
    if (real == NULL) {                                                                            \
        void *const found = next(name);                                                            \
        memcpy(&real, &found, sizeof found);                                                       \
    }

typedef int wait_function(int, struct epoll_event *, int, int);
typedef int control_function(int, int, int, struct epoll_event *);
typedef int rename_function(int, const char *, int, const char *);
typedef int lock_function(int, int);
typedef int shutdown_function(int, int);
typedef ssize_t read_function(int, void *, size_t);
typedef ssize_t write_function(int, const void *, size_t);
typedef ssize_t send_function(int, const void *, size_t, int);
typedef ssize_t vector_function(int, const struct iovec *, int);

int epoll_wait(int epoll, struct epoll_event *events, int size, int timeout)
{
    NEXT(wait_function, "epoll_wait")
    end_copy();
    return real(epoll, events, size, timeout);
}

int epoll_ctl(int epoll, int operation, int fd, struct epoll_event *event)
{
    NEXT(control_function, "epoll_ctl")
    end_copy();
    return real(epoll, operation, fd, event);
}

/* Files apart, which are the log and the store, whatever is read or written has another end. */
static void end_copy_at_stream(int fd)
{
    struct stat found;
    if (is_copy && fd > STDERR_FILENO && (fstat(fd, &found) != 0 || !S_ISREG(found.st_mode))) {
        _exit(SURVIVED);
    }
}

ssize_t write(int fd, const void *bytes, size_t size)
{
    NEXT(write_function, "write")
    end_copy_at_stream(fd);
    return real(fd, bytes, size);
}

ssize_t send(int fd, const void *bytes, size_t size, int flags)
{
    NEXT(send_function, "send")
    end_copy_at_stream(fd);
    return real(fd, bytes, size, flags);
}

ssize_t read(int fd, void *bytes, size_t size)
{
    NEXT(read_function, "read")
    end_copy_at_stream(fd);
    return real(fd, bytes, size);
}

ssize_t readv(int fd, const struct iovec *parts, int count)
{
    NEXT(vector_function, "readv")
    end_copy_at_stream(fd);
    return real(fd, parts, count);
}

ssize_t writev(int fd, const struct iovec *parts, int count)
{
    NEXT(vector_function, "writev")
    end_copy_at_stream(fd);
    return real(fd, parts, count);
}

/* Closing ends nothing for the daemon, which holds the connection too; this would. */
int shutdown(int fd, int how)
{
    NEXT(shutdown_function, "shutdown")
    end_copy();
    return real(fd, how);
}

/* Every change of the store begins with its lock. */
int flock(int fd, int operation)
{
    NEXT(lock_function, "flock")
    end_copy();
    return real(fd, operation);
}

int renameat(int from, const char *old, int to, const char *new)
{
    NEXT(rename_function, "renameat")
    end_copy();
    return real(from, old, to, new);
}

static int is_the_daemon(void)
{
    /* Only the program itself: the commands that it runs inherit the preload. */
    return strcmp(program_invocation_short_name, "velmd") == 0;
}

__attribute__((constructor)) static void begin(void)
{
    const char *const path = getenv("VELM_ALLOCATION_FAULT");
    control_path = path;
    if (path == NULL || !is_the_daemon()) {
        return;
    }
    void *const mapped = control_of(path, sizeof *control);
    snprintf(results, sizeof results, "%s.results", path);
    /* Its first call loads what it needs, and allocates. */
    void *frame[1];
    backtrace(frame, 1);
    control = mapped;
}
