#include "process/prepare.h"

#include <event2/event.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "handles/exhaustion.h"
#include "handles/fd.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "main";
constexpr mode_t created_files_mask = 022;

int level_of_libevent(int severity)
{
    switch (severity) {
    case EVENT_LOG_DEBUG:
        return LOG_LEVEL_TRACE;
    case EVENT_LOG_MSG:
        return LOG_LEVEL_DEBUG;
    case EVENT_LOG_WARN:
        return LOG_LEVEL_WARN;
    default:
        return LOG_LEVEL_ERROR;
    }
}

void log_libevent(int severity, const char *message) noexcept
{
    LOG_AT(level_of_libevent(severity), "libevent - %s", message);
}

void libevent_is_broken(int code) noexcept
{
    fatal_call(log_category, __FILE__, __LINE__, __func__, "libevent", code);
}

void block_sighup(int how)
{
    sigset_t sighup;
    sigemptyset(&sighup);
    sigaddset(&sighup, SIGHUP);
    sigprocmask(how, &sighup, nullptr);
}

/// A stream that is closed is given /dev/null, so that no socket takes its number and receives what
/// is printed.
void keep_standard_streams()
{
    int fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    const unique_fd beyond{fd};
}

} // namespace

void process_prepare()
{
    keep_standard_streams();
    umask(created_files_mask); // whatever the caller's was
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGCHLD, SIG_DFL); // a parent that ignored it would hide how `ip` ended
    block_sighup(SIG_BLOCK); // a reload asked for during start-up waits until it can be served
    fatal_install_memory_handler();
    event_set_log_callback(log_libevent);
    event_set_fatal_callback(libevent_is_broken);
}

void process_unblock_sighup()
{
    block_sighup(SIG_UNBLOCK);
}
