#include "logger/file_mode.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fakes/temporary_directory.h"
#include "handles/fd.h"

namespace {

class FileMode : public testing::Test {
  protected:
    [[nodiscard]] mode_t now() const
    {
        struct stat found {};
        fstat(file.get(), &found);
        return found.st_mode & 07777;
    }

    temporary_directory directory;
    unique_fd file{open(directory.path("file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)};
};

TEST_F(FileMode, BeyondTheMostIsTakenAwayAndTold)
{
    ASSERT_EQ(fchmod(file.get(), 0666), 0);
    EXPECT_EQ(file_mode_narrow(file.get(), 0640), 0666U);
    EXPECT_EQ(now(), 0640U);
}

TEST_F(FileMode, WithinTheMostStays)
{
    for (const mode_t mode : {0600U, 0640U, 0400U}) {
        ASSERT_EQ(fchmod(file.get(), mode), 0);
        EXPECT_EQ(file_mode_narrow(file.get(), 0640), 0U);
        EXPECT_EQ(now(), mode);
    }
}

TEST_F(FileMode, NarrowerInOnePartIsNotMadeWiderThere)
{
    ASSERT_EQ(fchmod(file.get(), 0406), 0);
    EXPECT_EQ(file_mode_narrow(file.get(), 0640), 0406U);
    EXPECT_EQ(now(), 0400U);
}

TEST_F(FileMode, OfAnotherUsersFileStays)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "giving a file away needs root";
    }
    ASSERT_EQ(fchown(file.get(), 12345, 12345), 0);
    ASSERT_EQ(fchmod(file.get(), 0666), 0);
    EXPECT_EQ(file_mode_narrow(file.get(), 0640), 0U);
    EXPECT_EQ(now(), 0666U);
}

TEST_F(FileMode, OfAFifoStays)
{
    ASSERT_EQ(mkfifo(directory.path("fifo").c_str(), 0600), 0);
    ASSERT_EQ(chmod(directory.path("fifo").c_str(), 0666), 0);
    file.reset(open(directory.path("fifo").c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    EXPECT_EQ(file_mode_narrow(file.get(), 0640), 0U);
    EXPECT_EQ(now(), 0666U);
}

TEST_F(FileMode, WithoutAFileNothingIsDone)
{
    EXPECT_EQ(file_mode_narrow(-1, 0640), 0U);
}

} // namespace
