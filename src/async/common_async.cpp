#include "async/common_async.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>

#include "handles/argument.h"
#include "handles/fd.h"
#include "handles/libevent.h"
#include "logger/fatal.h"

struct common_async_context {
    event_ptr timer; // none for an action call
    common_async_callback callback = nullptr;
    void *user_data = nullptr;
};

namespace {

constexpr char log_category[] = "common_async";

/// Under a flood of others a long action gets its turn after this many of them.
constexpr unsigned long_action_patience = 32;

/// A request without checks has three.
constexpr int steps_at_once = 4;

using context_ptr = std::unique_ptr<common_async_context>;

/// An action call. Its context is made when it runs: a request has three of them.
struct waiting_action {
    common_async_callback callback = nullptr;
    void *user_data = nullptr;
};

struct module_state {
    event_base *base = nullptr;
    unique_fd pipe_read;
    unique_fd pipe_write;
    event_ptr event_pipe_watcher;
    event_ptr next_turn; // a timer without delay
    std::deque<waiting_action> waiting;
    std::deque<waiting_action> waiting_long;
    unsigned passed_over = 0; // others that ran since a long one could have
    bool awake = false;       // a pointer lies in the pipe, or next_turn is set or active
    bool loop_turns = false;  // it has, so whoever calls from now on is one of its callbacks
};
module_state state;

context_ptr make_context(common_async_callback callback, void *user_data)
{
    const allocation_name naming{__func__, "ctx"};
    auto context = std::make_unique<common_async_context>();
    context->callback = callback;
    context->user_data = user_data;
    return context;
}

void action_run(common_async_context *ctx, short events)
{
    if (ctx->callback == nullptr) {
        fatal_null_reference(log_category, __FILE__, __LINE__, "action_cb", "ctx->cb");
    }
    ctx->callback(ctx->user_data, events, ctx);
}

void action_cb(evutil_socket_t, short events, void *argument) noexcept
{
    const context_ptr ctx = adopt<common_async_context>(argument);
    action_run(ctx.get(), events);
}

/// No kernel object says that an action waits: the loop is awake, and with a timer that is due it
/// looks for input once, without sleeping, and comes here.
void ask_for_next_turn()
{
    constexpr timeval now{};
    const int rc = evtimer_add(state.next_turn.get(), &now);
    REQUIRE_CALL(rc == 0, "evtimer_add(next_turn, &now)", rc);
}

/// The queue whose first action is next; one of them is not empty.
std::deque<waiting_action> &next_queue()
{
    if (state.waiting_long.empty()) {
        return state.waiting;
    }
    if (state.waiting.empty() || state.passed_over >= long_action_patience) {
        state.passed_over = 0;
        return state.waiting_long;
    }
    ++state.passed_over;
    return state.waiting;
}

void run_front(std::deque<waiting_action> &queue)
{
    common_async_context context{nullptr, queue.front().callback, queue.front().user_data};
    queue.pop_front();
    action_run(&context, EV_READ);
}

/// The loop has met nothing else in this turn, and only what the last action queued waits.
bool is_next_step_alone()
{
    return state.waiting.size() == 1 && state.waiting_long.empty() &&
           event_base_get_num_events(state.base, EVENT_BASE_COUNT_ACTIVE) == 0;
}

/// One action a turn, so that input and timers get theirs however many wait. Only the next steps of
/// a request that is alone follow at once: to ask the kernel in between costs as much as a step.
void run_next()
{
    std::deque<waiting_action> &queue = next_queue();
    const bool was_alone = common_async_waiting() == 1;
    run_front(queue);
    for (int step = 1; step < steps_at_once && was_alone && is_next_step_alone(); ++step) {
        run_front(state.waiting);
    }
    state.awake = !state.waiting.empty() || !state.waiting_long.empty();
    if (state.awake) {
        ask_for_next_turn();
    }
}

void next_turn_cb(evutil_socket_t, short, void *) noexcept
{
    run_next();
}

void event_pipe_cb(evutil_socket_t fd, short, void *) noexcept
{
    void *woken_by = nullptr;
    if (read(fd, &woken_by, sizeof woken_by) != static_cast<ssize_t>(sizeof woken_by)) {
        FATAL("%s: error reading from pipe: %s", __func__, std::strerror(errno));
    }
    state.loop_turns = true;
    run_next();
}

/// When the first that waits runs.
enum class first_run {
    in_this_turn, // after all that the loop has met in it
    in_next_turn, // after a look for input
};

/// A loop that does not turn yet finds a pointer in the pipe.
void wake_loop(const char *caller, first_run when)
{
    if (state.awake) {
        return;
    }
    state.awake = true;
    if (state.loop_turns && when == first_run::in_this_turn) {
        event_active(state.next_turn.get(), EV_TIMEOUT, 1);
        return;
    }
    if (state.loop_turns) {
        ask_for_next_turn();
        return;
    }
    const void *const pointer = &state;
    if (write(state.pipe_write.get(), &pointer, sizeof pointer) !=
        static_cast<ssize_t>(sizeof pointer)) {
        FATAL("%s: error writing to pipe: %s", caller, std::strerror(errno));
    }
}

} // namespace

void common_async_set_event_base(event_base *base)
{
    state.base = base;
}

void common_async_init()
{
    event_base *const base = state.base;
    state = {};
    state.base = base;
    int event_pipe[2] = {-1, -1};
    const int rc = pipe2(event_pipe, O_CLOEXEC | O_NONBLOCK);
    REQUIRE_CALL(rc == 0, "pipe(event_pipe)", rc);
    state.pipe_read.reset(event_pipe[0]);
    state.pipe_write.reset(event_pipe[1]);
    state.event_pipe_watcher.reset(
        event_new(state.base, state.pipe_read.get(), EV_READ | EV_PERSIST, event_pipe_cb, nullptr));
    REQUIRE_NOT_NULL(state.event_pipe_watcher, "event_pipe_watcher");
    state.next_turn.reset(evtimer_new(state.base, next_turn_cb, nullptr));
    REQUIRE_MEMORY(state.next_turn, "next_turn");
    const int added = event_add(state.event_pipe_watcher.get(), nullptr);
    REQUIRE_CALL(added == 0, "event_add(event_pipe_watcher, NULL)", added);
}

int common_async_action_call(common_async_callback callback, void *user_data)
{
    const allocation_name naming{__func__, "ctx"};
    state.waiting.push_back({callback, user_data});
    wake_loop(__func__, first_run::in_this_turn);
    return 0;
}

int common_async_action_call_long(common_async_callback callback, void *user_data)
{
    const allocation_name naming{__func__, "ctx"};
    state.waiting_long.push_back({callback, user_data});
    wake_loop(__func__, first_run::in_next_turn);
    return 0;
}

int common_async_action_schedule(common_async_callback callback, void *user_data, long seconds,
                                 long microseconds)
{
    context_ptr ctx = make_context(callback, user_data);
    ctx->timer.reset(evtimer_new(state.base, action_cb, ctx.get()));
    REQUIRE_MEMORY(ctx->timer, "timer");
    const timeval tv{seconds, microseconds};
    const int rc = evtimer_add(ctx->timer.get(), &tv);
    REQUIRE_CALL(rc == 0, "evtimer_add(ctx->e, &tv)", rc);
    (void)ctx.release(); // the dispatcher takes it back
    return 0;
}

std::size_t common_async_waiting()
{
    return state.waiting.size() + state.waiting_long.size();
}
