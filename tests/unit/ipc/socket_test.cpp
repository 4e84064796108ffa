#include "ipc/socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "fakes/captured_log.h"
#include "fakes/ipc_peer.h"
#include "fakes/temporary_directory.h"

namespace {

class IpcSocket : public testing::Test {
  protected:
    IpcSocket() : outer_mask{umask(022)}
    {
    }
    ~IpcSocket() override
    {
        umask(outer_mask);
    }

    [[nodiscard]] std::string at(const std::string &name) const
    {
        return directory.path() + "/" + name;
    }

    static mode_t mode_of(const std::string &path)
    {
        struct stat found {};
        return stat(path.c_str(), &found) == 0 ? found.st_mode : 0;
    }

    const mode_t outer_mask;
    const temporary_directory directory;
};

TEST_F(IpcSocket, DirectoriesAreMadeComponentByComponentForTheOwnerOnly)
{
    EXPECT_TRUE(velm_ipc_socket_create_dir(at("a/b/c").c_str()));
    for (const char *name : {"a", "a/b", "a/b/c"}) {
        EXPECT_EQ(mode_of(at(name)), S_IFDIR | 0700U) << name;
    }
}

TEST_F(IpcSocket, AnExistingDirectoryIsFine)
{
    EXPECT_TRUE(velm_ipc_socket_create_dir(at("a").c_str()));
    EXPECT_TRUE(velm_ipc_socket_create_dir(at("a").c_str()));
    EXPECT_TRUE(velm_ipc_socket_create_dir("/"));
    EXPECT_TRUE(velm_ipc_socket_create_dir("."));
}

TEST_F(IpcSocket, ATrailingSlashIsIgnored)
{
    EXPECT_TRUE(velm_ipc_socket_create_dir((at("a/b") + "/").c_str()));
    EXPECT_TRUE(S_ISDIR(mode_of(at("a/b"))));
}

TEST_F(IpcSocket, SomethingElseThanADirectoryInTheWayFails)
{
    std::ofstream{at("file")} << "x";
    EXPECT_FALSE(velm_ipc_socket_create_dir(at("file").c_str()));
    EXPECT_FALSE(velm_ipc_socket_create_dir(at("file/below").c_str()));
}

TEST_F(IpcSocket, ALinkToADirectoryIsADirectory)
{
    ASSERT_EQ(symlink(directory.path().c_str(), at("link").c_str()), 0);
    EXPECT_TRUE(velm_ipc_socket_create_dir(at("link/below").c_str()));
    EXPECT_TRUE(S_ISDIR(mode_of(at("below"))));
}

TEST_F(IpcSocket, TheDirectoryPathHasOneToTwoHundredAndFiftyFiveCharacters)
{
    EXPECT_FALSE(velm_ipc_socket_create_dir(""));
    std::string path = directory.path();
    while (path.size() < 255) {
        path += path.size() % 50 == 49 && path.size() < 254 ? "/" : "d";
    }
    EXPECT_FALSE(velm_ipc_socket_create_dir((path + "d").c_str()));
    EXPECT_TRUE(velm_ipc_socket_create_dir(path.c_str()));
}

TEST_F(IpcSocket, ListensInADirectoryItMadeForOwnerAndGroup)
{
    const unique_fd listener = velm_ipc_socket_listen(at("new/socket").c_str());
    ASSERT_TRUE(listener);
    EXPECT_EQ(mode_of(at("new")), S_IFDIR | 0700U);
    EXPECT_EQ(mode_of(at("new/socket")), S_IFSOCK | 0660U);
    EXPECT_EQ(umask(022), 022U) << "the process's mask was changed";
    EXPECT_TRUE(ipc_connect(at("new/socket")));
}

TEST_F(IpcSocket, TheListenerIsNonBlockingSequencedAndInherited)
{
    const unique_fd listener = velm_ipc_socket_listen(at("socket").c_str());
    int type = 0;
    socklen_t size = sizeof type;
    ASSERT_EQ(getsockopt(listener.get(), SOL_SOCKET, SO_TYPE, &type, &size), 0);
    EXPECT_EQ(type, SOCK_SEQPACKET);
    int keepalive = 0;
    ASSERT_EQ(getsockopt(listener.get(), SOL_SOCKET, SO_KEEPALIVE, &keepalive, &size), 0);
    EXPECT_NE(keepalive, 0);
    int reuse = 0;
    ASSERT_EQ(getsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, &size), 0);
    EXPECT_NE(reuse, 0);
    EXPECT_NE(fcntl(listener.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(listener.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(IpcSocket, AsManyClientsAsTheBacklogSaysWaitToBeAccepted)
{
    const unique_fd listener = velm_ipc_socket_listen(at("socket").c_str());
    std::vector<unique_fd> clients;
    while (clients.size() < 100) {
        unique_fd client = ipc_connect(at("socket"));
        if (!client) {
            break;
        }
        clients.push_back(std::move(client));
    }
    EXPECT_EQ(clients.size(), 5U + 1U) << "the kernel lets one more in than it is told";
}

TEST_F(IpcSocket, ASocketThatLayAtThePathIsReplaced)
{
    const unique_fd left_over = velm_ipc_socket_listen(at("socket").c_str());
    ASSERT_TRUE(left_over);
    const unique_fd listener = velm_ipc_socket_listen(at("socket").c_str());
    EXPECT_TRUE(listener);
    EXPECT_TRUE(ipc_connect(at("socket")));
}

TEST_F(IpcSocket, AFileThatLiesAtThePathIsLeftAlone)
{
    std::ofstream{at("socket")} << "somebody's";
    const captured_log log;
    EXPECT_FALSE(velm_ipc_socket_listen(at("socket").c_str()));
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_TRUE(log.has("ERROR IPC - velm_ipc_socket_listen - " + at("socket") +
                        " is no socket and is left alone"));
    std::string content;
    std::getline(std::ifstream{at("socket")}, content);
    EXPECT_EQ(content, "somebody's");
}

TEST_F(IpcSocket, ALinkAtThePathIsLeftAloneAndWhatItNamesToo)
{
    const unique_fd other = velm_ipc_socket_listen(at("other").c_str());
    ASSERT_EQ(symlink(at("other").c_str(), at("socket").c_str()), 0);
    EXPECT_FALSE(velm_ipc_socket_listen(at("socket").c_str()));
    EXPECT_TRUE(ipc_connect(at("other")));
    EXPECT_TRUE(std::filesystem::is_symlink(at("socket")));
}

TEST_F(IpcSocket, AParentThatCannotBeMadeIsLoggedAndBindingFails)
{
    std::ofstream{at("file")} << "x";
    const captured_log log;
    EXPECT_FALSE(velm_ipc_socket_listen(at("file/below/socket").c_str()));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(log.has("ERROR IPC - Cannot create parent dir " + at("file/below")));
}

TEST_F(IpcSocket, ADirectoryAtThePathFails)
{
    ASSERT_TRUE(velm_ipc_socket_create_dir(at("socket").c_str()));
    EXPECT_FALSE(velm_ipc_socket_listen(at("socket").c_str()));
    EXPECT_EQ(errno, EADDRINUSE);
}

TEST_F(IpcSocket, APathWithoutADirectoryLiesWhereTheProcessIs)
{
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(directory.path());
    const unique_fd listener = velm_ipc_socket_listen("socket");
    std::filesystem::current_path(before);
    EXPECT_TRUE(listener);
    EXPECT_TRUE(ipc_connect(at("socket")));
}

TEST_F(IpcSocket, ConnectsWhereSomebodyListensAndFailsElsewhere)
{
    EXPECT_FALSE(velm_ipc_socket_connect(at("socket").c_str()));
    EXPECT_EQ(errno, ENOENT);
    const unique_fd listener = velm_ipc_socket_listen(at("socket").c_str());
    const unique_fd client = velm_ipc_socket_connect(at("socket").c_str());
    ASSERT_TRUE(client);
    EXPECT_NE(fcntl(client.get(), F_GETFD) & FD_CLOEXEC, 0);
}

} // namespace
