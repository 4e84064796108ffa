#include "ipc/listener.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "fakes/captured_log.h"
#include "fakes/ipc_peer.h"
#include "fakes/no_descriptors.h"
#include "fakes/temporary_directory.h"

namespace {

struct accepted_client {
    unique_fd socket;
    ucred peer;
};

class IpcListener : public testing::Test {
  protected:
    static void take(void *context, unique_fd socket, const ucred &peer)
    {
        static_cast<IpcListener *>(context)->accepted.push_back({std::move(socket), peer});
    }

    bool listen(const std::string &at)
    {
        return listener.server_listen(base.get(), at.c_str(), take, this);
    }

    bool turn_until_accepted(std::size_t count)
    {
        return ipc_turn_until(base.get(), [&] { return accepted.size() >= count; });
    }

    const temporary_directory directory;
    const std::string path = directory.path("socket");
    const event_base_ptr base{event_base_new()};
    std::vector<accepted_client> accepted;
    velm_ipc_listener listener;
};

TEST_F(IpcListener, HandsEachClientOnWithWhatTheKernelSaysOfIt)
{
    const captured_log log;
    ASSERT_TRUE(listen(path));
    const unique_fd first = ipc_connect(path);
    const unique_fd second = ipc_connect(path);
    ASSERT_TRUE(turn_until_accepted(2));
    EXPECT_EQ(accepted[0].peer.pid, getpid());
    EXPECT_EQ(accepted[0].peer.uid, getuid());
    EXPECT_EQ(accepted[0].peer.gid, getgid());
    EXPECT_EQ(log.count("DEBUG IPC - accept_cb - pid: " + std::to_string(getpid())), 2);
}

TEST_F(IpcListener, HandsOnSocketsThatDoNotBlockAndAreCloseOnExec)
{
    ASSERT_TRUE(listen(path));
    const unique_fd client = ipc_connect(path);
    ASSERT_TRUE(turn_until_accepted(1));
    const int socket = accepted[0].socket.get();
    EXPECT_NE(fcntl(socket, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(socket, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(IpcListener, TheHandlerOwnsTheSocket)
{
    ASSERT_TRUE(listen(path));
    const unique_fd client = ipc_connect(path);
    ASSERT_TRUE(turn_until_accepted(1));
    EXPECT_FALSE(ipc_receive(client).has_value());
    accepted.clear();
    EXPECT_EQ(ipc_receive(client), ipc_bytes{}); // the end of the stream
}

TEST_F(IpcListener, ThatCannotBeSetUpSaysWhy)
{
    const std::string below_a_file = directory.write("file", "x") + "/socket";
    const captured_log log;
    EXPECT_FALSE(listen(below_a_file));
    EXPECT_TRUE(log.has("ERROR IPC - Cannot create listener"));
    EXPECT_TRUE(log.has("ERROR IPC - server_listen - " + below_a_file + ": Not a directory"));
}

TEST_F(IpcListener, WithoutDescriptorsItRestsAndThenServes)
{
    ASSERT_TRUE(listen(path));
    const unique_fd waiting = ipc_connect(path);
    const captured_log log;
    {
        const no_descriptors none{3};
        ipc_turn(base.get(), 200);
    }
    EXPECT_EQ(log.count("ERROR IPC - Listener error"), 1) << "the loop spins";
    EXPECT_TRUE(accepted.empty());
    EXPECT_TRUE(turn_until_accepted(1));
}

TEST(IpcListenerEnd, LeavesNobodyToConnectToAndNoEvent)
{
    const temporary_directory directory;
    const std::string path = directory.path("socket");
    const event_base_ptr base{event_base_new()};
    {
        velm_ipc_listener listener;
        ASSERT_TRUE(listener.server_listen(
            base.get(), path.c_str(), [](void *, unique_fd, const ucred &) {}, nullptr));
        EXPECT_TRUE(ipc_connect(path));
    }
    EXPECT_FALSE(ipc_connect(path));
    EXPECT_EQ(event_base_get_num_events(base.get(), EVENT_BASE_COUNT_ADDED), 0);
}

} // namespace
