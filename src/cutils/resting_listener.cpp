#include "cutils/resting_listener.h"

#include "logger/fatal.h"

namespace {

constexpr char log_category[] = "common_async";

void on_wake(evutil_socket_t, short, void *listener) noexcept
{
    evconnlistener_enable(static_cast<evconnlistener *>(listener));
}

} // namespace

void resting_listener::watch(evconnlistener *listener)
{
    listener_ = listener;
    wake_.reset(evtimer_new(evconnlistener_get_base(listener), on_wake, listener));
    REQUIRE_MEMORY(wake_, "listener_wake");
}

void resting_listener::forget()
{
    wake_.reset();
    listener_ = nullptr;
}

void resting_listener::rest(const timeval &length)
{
    evconnlistener_disable(listener_);
    const int rc = evtimer_add(wake_.get(), &length);
    REQUIRE_CALL(rc == 0, "evtimer_add(listener_wake, &length)", rc);
}
