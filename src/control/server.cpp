#include "control/server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "async/common_async.h"
#include "control/connection.h"
#include "control/routes.h"
#include "handles/libevent.h"
#include "ipc/socket.h"
#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "control";
constexpr timeval accept_pause{0, 200000};

/// Names a file as long as it is there.
struct file_identity {
    dev_t device = 0;
    ino_t number = 0;
    bool operator==(const file_identity &) const = default;
};

struct module_state {
    event_base *base = nullptr;
    std::string path;
    file_identity file; // of the socket
    unique_fd socket;
    event_ptr acceptable;
    event_ptr accept_again;
    std::uint64_t latest = 0; // the number of what happened last
    std::vector<std::unique_ptr<control_connection>> connections; // in the order in which they came
};
module_state state;

file_identity identity_of(const char *path)
{
    struct stat found {};
    return lstat(path, &found) == 0 ? file_identity{found.st_dev, found.st_ino} : file_identity{};
}

auto count(bool (*is_counted)(control_phase))
{
    return static_cast<std::size_t>(
        std::count_if(state.connections.begin(), state.connections.end(),
                      [is_counted](const auto &one) { return is_counted(one->phase()); }));
}

bool is_ending(control_phase phase)
{
    return phase == control_phase::ending;
}

bool takes_place(control_phase phase)
{
    return !is_ending(phase);
}

void on_ended(control_connection &ended)
{
    std::erase_if(state.connections, [&ended](const auto &one) { return one.get() == &ended; });
}

/// Lets the connection wait, and says true, when its answer is about something that has not happened yet.
bool wait_if_wanted(control_connection &connection, const control_request &request)
{
    const auto wanted = control_wait_of(request);
    if (connection.has_waited() || !wanted || wanted->seconds == 0) {
        return false;
    }
    const std::uint64_t above = wanted->after.value_or(state.latest);
    if (state.latest > above) {
        return false;
    }
    connection.wait(above, {static_cast<time_t>(wanted->seconds), 0});
    return true;
}

/// The one that is due for longest. It may have gone meanwhile.
void answer_one(void *, short, common_async_context *) noexcept
{
    const auto due =
        std::find_if(state.connections.begin(), state.connections.end(),
                     [](const auto &one) { return one->phase() == control_phase::due; });
    if (due == state.connections.end()) {
        return;
    }
    control_connection &connection = **due;
    const control_request request = control_request_read(connection.head()).request;
    if (!wait_if_wanted(connection, request)) {
        connection.answer(control_answer_text(control_route(request)));
    }
}

/// A document may take milliseconds: phones and local clients go first.
void on_due(control_connection &)
{
    common_async_action_call_long(answer_one, nullptr);
}

constexpr control_connection_owner owner{on_due, on_ended};

/// Whoever has had its answer longest.
void endings_limit()
{
    while (count(is_ending) > control_ending_limit) {
        state.connections.erase(
            std::find_if(state.connections.begin(), state.connections.end(),
                         [](const auto &one) { return is_ending(one->phase()); }));
    }
}

/// True when there is a place. Those who have gone give up theirs only now that it is wanted.
bool make_place()
{
    if (count(takes_place) >= control_place_limit) {
        std::erase_if(state.connections, [](const auto &one) { return one->is_left(); });
    }
    return count(takes_place) < control_place_limit;
}

void connection_add(unique_fd socket)
{
    const bool has_place = make_place();
    state.connections.push_back(
        std::make_unique<control_connection>(state.base, std::move(socket), owner));
    if (!has_place) {
        state.connections.back()->answer(
            control_answer_text(control_refusal(503, "all places are taken")));
    }
    endings_limit();
}

/// Without descriptors the listener would stay readable, and the loop would spin.
void accept_later()
{
    LOG_WARN("%s - cannot accept: %s", __func__, std::strerror(errno));
    event_del(state.acceptable.get());
    evtimer_add(state.accept_again.get(), &accept_pause);
}

/// One in a turn of the loop.
void on_acceptable(evutil_socket_t fd, short, void *) noexcept
{
    unique_fd socket{accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)};
    if (socket) {
        connection_add(std::move(socket));
    } else if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
        accept_later();
    }
}

void on_accept_again(evutil_socket_t, short, void *) noexcept
{
    event_add(state.acceptable.get(), nullptr);
}

void watch_listener()
{
    state.accept_again.reset(evtimer_new(state.base, on_accept_again, nullptr));
    REQUIRE_MEMORY(state.accept_again, "accept_again");
    state.acceptable.reset(
        event_new(state.base, state.socket.get(), EV_READ | EV_PERSIST, on_acceptable, nullptr));
    REQUIRE_MEMORY(state.acceptable, "acceptable");
    const int rc = event_add(state.acceptable.get(), nullptr);
    REQUIRE_CALL(rc == 0, "event_add(acceptable, NULL)", rc);
}

/// Also when somebody has removed the file: a reload puts it back.
bool goes_on_at(const char *path)
{
    return state.socket && state.path == path && identity_of(path) == state.file;
}

void stop()
{
    if (!state.socket) {
        return;
    }
    state.connections.clear();
    state.acceptable.reset();
    state.accept_again.reset();
    state.socket.reset();
    if (identity_of(state.path.c_str()) == state.file) {
        unlink(state.path.c_str());
    }
}

} // namespace

void control_server_set_event_base(event_base *base)
{
    state.base = base;
}

void control_server_start(const char *path)
{
    if (goes_on_at(path)) {
        return;
    }
    stop();
    state.path = path;
    if (state.path.empty()) {
        LOG_INFO("%s - not configured", __func__);
        return;
    }
    if (state.path.size() > control_path_limit) {
        LOG_WARN("%s - no control socket, the path is longer than %zu characters: %s", __func__,
                 control_path_limit, path);
        return;
    }
    state.socket = velm_ipc_socket_listen(path, SOCK_STREAM | SOCK_CLOEXEC, control_backlog);
    if (!state.socket) {
        LOG_WARN("%s - no control socket at %s: %s", __func__, path, std::strerror(errno));
        return;
    }
    state.file = identity_of(path);
    watch_listener();
    LOG_INFO("%s - %s", __func__, path);
}

void control_server_tell(std::uint64_t number)
{
    state.latest = number;
    for (const auto &one : state.connections) {
        if (one->waits_for(number)) {
            one->become_due();
        }
    }
}

bool control_server_is_listening()
{
    return static_cast<bool>(state.socket);
}
