#include "tools/locations/velmctl_client.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "fakes/ipc_peer.h"
#include "fakes/temporary_directory.h"
#include "ipc/socket.h"

namespace {

using std::chrono::steady_clock;

class VelmctlClient : public testing::Test {
  protected:
    VelmctlClient()
    {
        EXPECT_EQ(client.connect(path, std::nullopt), velmctl_result::done);
        daemon.reset(accept(listener.get(), nullptr, nullptr));
    }

    velmctl_result receive_at_the_deadline()
    {
        return client.receive(steady_clock::now(), frame);
    }

    const temporary_directory directory;
    const std::string path = directory.path() + "/socket";
    const unique_fd listener = velm_ipc_socket_listen(path.c_str());
    unique_fd daemon;
    velmctl_client client;
    velmctl_frame frame{};
};

TEST_F(VelmctlClient, LooksOnceAtItsDeadlineAndAFloodDoesNotOutlastIt)
{
    for (std::uint32_t id = 1; id <= 3; ++id) {
        ASSERT_TRUE(ipc_send(daemon, ipc_frame(40960, id, {})));
    }
    EXPECT_EQ(receive_at_the_deadline(), velmctl_result::done);
    EXPECT_EQ(frame.header.id, 1U);
    EXPECT_EQ(receive_at_the_deadline(), velmctl_result::timed_out);
}

TEST_F(VelmctlClient, WithNothingThereItsDeadlineIsTheEnd)
{
    EXPECT_EQ(receive_at_the_deadline(), velmctl_result::timed_out);
}

TEST_F(VelmctlClient, TellsADaemonThatClosedFromOneThatDidNotReadTheRequest)
{
    ASSERT_EQ(client.send_request(1, 60), velmctl_result::done);
    daemon.reset();
    EXPECT_EQ(client.receive(std::nullopt, frame), velmctl_result::turned_away);

    ASSERT_EQ(client.connect(path, std::nullopt), velmctl_result::done);
    daemon.reset(accept(listener.get(), nullptr, nullptr));
    ASSERT_EQ(client.send_request(2, 60), velmctl_result::done);
    EXPECT_TRUE(ipc_receive(daemon).has_value());
    daemon.reset();
    EXPECT_EQ(client.receive(std::nullopt, frame), velmctl_result::closed);

    ASSERT_EQ(client.connect(path, std::nullopt), velmctl_result::done);
    daemon.reset(accept(listener.get(), nullptr, nullptr));
    daemon.reset();
    EXPECT_EQ(client.send_request(3, 60), velmctl_result::turned_away);
}

} // namespace
