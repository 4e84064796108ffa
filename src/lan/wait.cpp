#include "lan/wait.h"

#include <algorithm>
#include <array>

#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "velm_lan";
constexpr std::array<long, 10> delays_ms{1, 2, 5, 10, 20, 50, 100, 200, 500, 1000};

} // namespace

void velm_lan_wait::again(event_base *base, event_callback_fn attempt)
{
    if (timer_ == nullptr) {
        timer_.reset(evtimer_new(base, attempt, nullptr));
        REQUIRE_MEMORY(timer_, "timer");
    }
    const long delay_ms = delays_ms[std::min(tries_, delays_ms.size() - 1)];
    ++tries_;
    const timeval delay{delay_ms / 1000, delay_ms % 1000 * 1000};
    const int rc = evtimer_add(timer_.get(), &delay);
    REQUIRE_CALL(rc == 0, "evtimer_add(timer, &delay)", rc);
}

void velm_lan_wait::end() noexcept
{
    timer_.reset();
    tries_ = 0;
}
