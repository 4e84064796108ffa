#include "process/pid_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "fakes/temporary_directory.h"

namespace {

class PidFile : public testing::Test {
  protected:
    temporary_directory directory;
    std::string path = directory.path("velmd.pid");
    std::string own = std::to_string(getpid()) + "\n";
};

TEST_F(PidFile, HoldsThePidAndALineEnd)
{
    const velm_pid_file claimed = velm_pid_file_claim(path.c_str());
    ASSERT_TRUE(claimed.file);
    EXPECT_TRUE(velm_pid_file_write(claimed));
    EXPECT_EQ(directory.read("velmd.pid"), own);
}

TEST_F(PidFile, ThatAnotherHoldsIsLeftAndItsHolderNamed)
{
    const velm_pid_file first = velm_pid_file_claim(path.c_str());
    ASSERT_TRUE(velm_pid_file_write(first));
    const velm_pid_file second = velm_pid_file_claim(path.c_str());
    EXPECT_FALSE(second.file);
    EXPECT_TRUE(second.is_held_by_other);
    EXPECT_EQ(second.holder, getpid());
    EXPECT_EQ(directory.read("velmd.pid"), own);
}

TEST_F(PidFile, WhoseHolderHasNotWrittenYetNamesNobody)
{
    const velm_pid_file first = velm_pid_file_claim(path.c_str());
    const velm_pid_file second = velm_pid_file_claim(path.c_str());
    EXPECT_TRUE(second.is_held_by_other);
    EXPECT_EQ(second.holder, 0);
}

TEST_F(PidFile, OfADeadDaemonIsTakenOverAndEmptiedAtOnce)
{
    directory.write("velmd.pid", "12345678901234567890 and more\n");
    const velm_pid_file claimed = velm_pid_file_claim(path.c_str());
    ASSERT_TRUE(claimed.file);
    EXPECT_EQ(directory.read("velmd.pid"), "");
    EXPECT_TRUE(velm_pid_file_write(claimed));
    EXPECT_EQ(directory.read("velmd.pid"), own);
}

TEST_F(PidFile, StaysLockedByTheChildWhenItsParentHasEnded)
{
    int alive[2];
    ASSERT_EQ(pipe(alive), 0);
    const pid_t parent = fork();
    if (parent == 0) {
        const velm_pid_file claimed = velm_pid_file_claim(path.c_str());
        if (fork() == 0) {
            close(alive[1]);
            char byte = 0;
            _exit(read(alive[0], &byte, 1) == 0 ? 0 : 1); // until the test lets go
        }
        _exit(0);
    }
    ASSERT_EQ(waitpid(parent, nullptr, 0), parent);
    EXPECT_TRUE(velm_pid_file_claim(path.c_str()).is_held_by_other);
    close(alive[1]);
    const unique_fd waiting{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    EXPECT_EQ(flock(waiting.get(), LOCK_EX), 0); // given back by the child's end
    close(alive[0]);
}

TEST_F(PidFile, IsNotHandedOnToPrograms)
{
    const velm_pid_file claimed = velm_pid_file_claim(path.c_str());
    EXPECT_EQ(fcntl(claimed.file.get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(PidFile, ThatCannotBeOpenedIsNeitherHeldNorTaken)
{
    for (const char *impossible : {"/nowhere/velmd.pid", "/"}) {
        const velm_pid_file claimed = velm_pid_file_claim(impossible);
        EXPECT_FALSE(claimed.file) << impossible;
        EXPECT_FALSE(claimed.is_held_by_other) << impossible;
    }
}

TEST_F(PidFile, OfARelativePathLiesBelowTheRoot)
{
    const velm_pid_file claimed = velm_pid_file_claim(path.c_str() + 1);
    EXPECT_TRUE(claimed.file);
    EXPECT_TRUE(std::filesystem::exists(path));
}

/// A link to a file with a text, which belongs to that user.
class PidFileLink : public PidFile {
  protected:
    void make_link(uid_t owner)
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root makes a link of another user";
        }
        directory.write("target", "text\n");
        std::filesystem::create_symlink(directory.path("target"), path);
        ASSERT_EQ(lchown(path.c_str(), owner, 0), 0);
    }
};

TEST_F(PidFileLink, OfRootIsFollowed)
{
    make_link(0);
    const velm_pid_file claimed = velm_pid_file_claim(path.c_str());
    ASSERT_TRUE(claimed.file);
    EXPECT_TRUE(velm_pid_file_write(claimed));
    EXPECT_EQ(directory.read("target"), own);
    EXPECT_TRUE(std::filesystem::is_symlink(path));
}

TEST_F(PidFileLink, OfAnotherUserIsNotFollowed)
{
    make_link(65534);
    const velm_pid_file claimed = velm_pid_file_claim(path.c_str());
    EXPECT_FALSE(claimed.file);
    EXPECT_FALSE(claimed.is_held_by_other);
    EXPECT_EQ(directory.read("target"), "text\n");
}

TEST_F(PidFileLink, OfAnotherUserToNothingMakesNothing)
{
    make_link(65534);
    std::filesystem::remove(directory.path("target"));
    EXPECT_FALSE(velm_pid_file_claim(path.c_str()).file);
    EXPECT_FALSE(std::filesystem::exists(directory.path("target")));
}

TEST_F(PidFile, ThatIsADeviceServesAnyNumberOfDaemons)
{
    const velm_pid_file first = velm_pid_file_claim("/dev/null");
    const velm_pid_file second = velm_pid_file_claim("/dev/null");
    EXPECT_TRUE(first.file);
    EXPECT_TRUE(second.file);
}

} // namespace
