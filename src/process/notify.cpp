#include "process/notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "handles/fd.h"
#include "handles/libevent.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "main";
constexpr std::size_t status_size = 200;
/// A supervisor that wants messages more often would get nothing else.
constexpr std::int64_t interval_min_us = 1000;
constexpr std::int64_t interval_max_us = 86'400'000'000; // a day; its seconds fit any time_t
constexpr timeval retry_delay{0, 100'000};
constexpr int retries_max = 50;

struct module_state {
    unique_fd socket; // none: nobody wants to be told
    sockaddr_un address{};
    socklen_t address_length = 0;
    std::int64_t watchdog_us = 0; // 0: no watchdog
    std::int64_t watchdog_pid = 0;
    event_base *base = nullptr;
    event_ptr watchdog;
    event_ptr retry;
    int retries = 0;
    bool is_ready = false;
    std::string status;
};
module_state state;

/// The value of a variable, which is no more afterwards.
std::string take_variable(const char *name)
{
    const char *const value = std::getenv(name);
    std::string taken = value == nullptr ? "" : value;
    unsetenv(name);
    return taken;
}

/// 0 for what is no number.
std::int64_t number_of(std::string_view text)
{
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc{} && end == text.data() + text.size() ? number : 0;
}

/// "/path", or "@name" of the abstract name space, which begins with a zero. False for anything else.
bool take_address(const std::string &name)
{
    const bool is_abstract = name.starts_with('@');
    if ((!is_abstract && !name.starts_with('/')) || name.size() < 2 ||
        name.size() >= sizeof state.address.sun_path) {
        return false;
    }
    state.address.sun_family = AF_UNIX;
    std::memcpy(state.address.sun_path, name.c_str(), name.size() + 1);
    if (is_abstract) {
        state.address.sun_path[0] = '\0';
    }
    state.address_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() +
                                                  (is_abstract ? 0 : 1));
    return true;
}

/// Calls nothing that a signal handler may not. False, and errno, when it was not taken.
bool send_message(std::string_view message)
{
    const auto *const address = reinterpret_cast<const sockaddr *>(&state.address);
    return sendto(state.socket.get(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                  address, state.address_length) >= 0;
}

/// Works also when the loop does not turn, and while the daemon starts.
void on_sigterm(int) noexcept
{
    send_message("STOPPING=1\nSTATUS=Stops");
    std::raise(SIGTERM); // by default again, and let in when this function returns
}

void announce_end()
{
    struct sigaction action {};
    action.sa_handler = on_sigterm;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGTERM, &action, nullptr);
}

void on_watchdog(evutil_socket_t, short, void *) noexcept
{
    send_message("WATCHDOG=1");
}

void tell_ready();

void on_retry(evutil_socket_t, short, void *) noexcept
{
    tell_ready();
}

void retry_later()
{
    if (state.base == nullptr || state.retries >= retries_max) {
        LOG_WARN("%s - the supervisor takes no message", __func__);
        return;
    }
    ++state.retries;
    if (state.retry == nullptr) {
        state.retry.reset(evtimer_new(state.base, on_retry, nullptr));
        REQUIRE_MEMORY(state.retry, "retry");
    }
    const int rc = evtimer_add(state.retry.get(), &retry_delay);
    REQUIRE_CALL(rc == 0, "evtimer_add(retry, &retry_delay)", rc);
}

/// A supervisor that never learns of it ends the daemon.
void tell_ready()
{
    const std::string message =
        "READY=1\nMAINPID=" + std::to_string(getpid()) + "\nSTATUS=" + state.status;
    if (send_message(message)) {
        state.retry.reset();
    } else if (errno == EAGAIN || errno == ENOBUFS) {
        retry_later();
    } else {
        LOG_WARN("%s - the supervisor cannot be told: %s", __func__, std::strerror(errno));
    }
}

} // namespace

void process_notify_begin()
{
    const std::string name = take_variable("NOTIFY_SOCKET");
    const std::string watchdog_us = take_variable("WATCHDOG_USEC");
    const std::string watchdog_pid = take_variable("WATCHDOG_PID");
    state = {};
    if (name.empty()) {
        return;
    }
    if (!take_address(name)) {
        LOG_REASON(LOG_LEVEL_WARN, "%s - NOTIFY_SOCKET is no socket's name: %s", __func__,
                   name.c_str());
        return;
    }
    state.socket.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (state.socket) {
        state.watchdog_us = number_of(watchdog_us);
        state.watchdog_pid = watchdog_pid.empty() ? getpid() : number_of(watchdog_pid);
        announce_end();
    }
}

void process_notify_set_event_base(event_base *base)
{
    state.base = base;
    if (state.watchdog_us <= 0 || state.watchdog_pid != getpid()) {
        return;
    }
    state.watchdog.reset(event_new(base, -1, EV_PERSIST, on_watchdog, nullptr));
    REQUIRE_MEMORY(state.watchdog, "watchdog");
    const std::int64_t interval_us =
        std::clamp(state.watchdog_us / 2, interval_min_us, interval_max_us);
    const timeval interval{static_cast<time_t>(interval_us / 1'000'000),
                           static_cast<suseconds_t>(interval_us % 1'000'000)};
    const int rc = evtimer_add(state.watchdog.get(), &interval);
    REQUIRE_CALL(rc == 0, "evtimer_add(watchdog, &interval)", rc);
}

void process_notify_status(const char *format, ...)
{
    if (!state.socket) {
        return;
    }
    char text[status_size];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::string status{text};
    std::replace_if(
        status.begin(), status.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
    if (status != state.status) {
        state.status = std::move(status);
        send_message("STATUS=" + state.status);
    }
}

void process_notify_reloading()
{
    if (!state.socket) {
        return;
    }
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    char message[80];
    std::snprintf(message, sizeof message, "RELOADING=1\nMONOTONIC_USEC=%lld",
                  static_cast<long long>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000);
    state.is_ready = false;
    state.retry.reset(); // readiness that is told now would be taken for the end of the reload
    send_message(message);
}

void process_notify_ready()
{
    if (state.socket && !state.is_ready) {
        state.is_ready = true;
        state.retries = 0;
        tell_ready();
    }
}
