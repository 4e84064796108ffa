#include "lan/query.h"

#include <utility>

#include "handles/libevent.h"
#include "logger/fatal.h"
#include "velm_sys_params.h"

namespace {

constexpr char log_category[] = "velm_lan";
/// A shell ends a moment after its output. One that has closed its output itself may take all its time.
constexpr timeval look_again_time{0, 1000};

struct module_state {
    event_base *base = nullptr;
    common_launched command;
    event_ptr output;     // readable, or the time is over
    event_ptr look_again; // while the shell outlives its output
    event_ptr time_up;
    velm_lan_answer_callback callback = nullptr;
};
module_state state;

bool is_command(const common_launched &command)
{
    return command.error != no_lan_bridge;
}

void finish()
{
    state.output.reset();
    state.look_again.reset();
    state.time_up.reset();
    velm_lan_answer answer;
    answer.was_asked = is_command(state.command);
    answer.addresses = get_ipv4_address_wlif_end(std::exchange(state.command, {}));
    std::exchange(state.callback, nullptr)(std::move(answer));
}

void finish_when_ended()
{
    if (state.command.pipe->has_ended()) {
        finish();
        return;
    }
    state.output.reset(); // its end would be readable all the time
    const int rc = evtimer_add(state.look_again.get(), &look_again_time);
    REQUIRE_CALL(rc == 0, "evtimer_add(look_again, &look_again_time)", rc);
}

void on_output(evutil_socket_t, short, void *) noexcept
{
    if (state.command.pipe->read()) {
        finish_when_ended();
    }
}

void on_look_again(evutil_socket_t, short, void *) noexcept
{
    finish_when_ended();
}

void on_time_up(evutil_socket_t, short, void *) noexcept
{
    state.command.pipe->end_time();
    finish();
}

} // namespace

void velm_lan_query_set_event_base(event_base *base)
{
    state.base = base;
}

void velm_lan_query_begin(velm_lan_answer_callback callback)
{
    state.callback = callback;
    state.command = get_ipv4_address_wlif_begin();
    if (state.command.pipe == nullptr) {
        finish();
        return;
    }
    const int fd = state.command.pipe->descriptor();
    state.output.reset(event_new(state.base, fd, EV_READ | EV_PERSIST, on_output, nullptr));
    REQUIRE_MEMORY(state.output, "output");
    int rc = event_add(state.output.get(), nullptr);
    REQUIRE_CALL(rc == 0, "event_add(output, NULL)", rc);
    state.look_again.reset(evtimer_new(state.base, on_look_again, nullptr));
    REQUIRE_MEMORY(state.look_again, "look_again");
    state.time_up.reset(evtimer_new(state.base, on_time_up, nullptr));
    REQUIRE_MEMORY(state.time_up, "time_up");
    constexpr timeval time{common_launch_time.count(), 0};
    rc = evtimer_add(state.time_up.get(), &time);
    REQUIRE_CALL(rc == 0, "evtimer_add(time_up, &time)", rc);
}

bool velm_lan_query_is_under_way()
{
    return state.callback != nullptr;
}

velm_lan_answer velm_lan_query_wait(void (*meanwhile)())
{
    common_launched command = get_ipv4_address_wlif_begin();
    meanwhile();
    velm_lan_answer answer;
    answer.was_asked = is_command(command);
    answer.addresses = get_ipv4_address_wlif_end(std::move(command));
    return answer;
}
