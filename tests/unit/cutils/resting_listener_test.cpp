#include "cutils/resting_listener.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "handles/fd.h"

namespace {

struct fixture {
    event_base_ptr loop{event_base_new()};
    int accepted = 0;
    sockaddr_in address{};
    evconnlistener_ptr listener;

    fixture()
    {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        listener.reset(evconnlistener_new_bind(
            loop.get(),
            [](evconnlistener *, evutil_socket_t fd, sockaddr *, int, void *count) {
                ++*static_cast<int *>(count);
                evutil_closesocket(fd);
            },
            &accepted, LEV_OPT_CLOSE_ON_FREE, 8, reinterpret_cast<sockaddr *>(&address),
            sizeof address));
        socklen_t length = sizeof address;
        getsockname(evconnlistener_get_fd(listener.get()), reinterpret_cast<sockaddr *>(&address),
                    &length);
    }

    [[nodiscard]] unique_fd connect() const
    {
        unique_fd client{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
        EXPECT_EQ(
            ::connect(client.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address),
            0);
        return client;
    }
};

TEST(RestingListener, TakesNobodyUntilItHasRested)
{
    fixture given;
    resting_listener resting;
    resting.watch(given.listener.get());
    resting.rest({0, 20000});
    const unique_fd client = given.connect();
    event_base_loop(given.loop.get(), EVLOOP_NONBLOCK);
    EXPECT_EQ(given.accepted, 0);
    for (int turn = 0; turn < 1000 && given.accepted == 0; ++turn) {
        event_base_loop(given.loop.get(), EVLOOP_ONCE);
    }
    EXPECT_EQ(given.accepted, 1);
}

TEST(RestingListener, LeavesNoTimerWhenItIsForgotten)
{
    fixture given;
    resting_listener resting;
    resting.watch(given.listener.get());
    resting.rest({60, 0});
    resting.forget();
    EXPECT_EQ(resting.get(), nullptr);
    EXPECT_EQ(event_base_get_num_events(given.loop.get(), EVENT_BASE_COUNT_ADDED), 0);
}

} // namespace
