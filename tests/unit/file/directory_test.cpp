#include "file/directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

class Directories : public testing::Test {
  protected:
    void SetUp() override
    {
        std::string pattern = testing::TempDir() + "directories-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        base = pattern;
        mask_was = umask(0);
    }
    void TearDown() override
    {
        umask(mask_was);
        std::filesystem::remove_all(base);
    }

    [[nodiscard]] static mode_t mode_of(const std::string &path)
    {
        struct stat found = {};
        return stat(path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
    }

    std::string base;
    mode_t mask_was = 0;
};

TEST_F(Directories, AreMadeWithThoseAbove)
{
    for (const directory_sync sync : {directory_sync::none, directory_sync::each}) {
        const std::string top = base + (sync == directory_sync::none ? "/none" : "/each");
        EXPECT_TRUE(make_directories(top + "/b/c", 0751, 0700, sync));
        EXPECT_EQ(mode_of(top), 0751U);
        EXPECT_EQ(mode_of(top + "/b"), 0751U);
        EXPECT_EQ(mode_of(top + "/b/c"), 0700U);
    }
}

TEST_F(Directories, MayEndInSlashesAndHaveThemInside)
{
    EXPECT_TRUE(make_directories(base + "/a//b/", 0755, 0700, directory_sync::each));
    EXPECT_NE(mode_of(base + "/a/b"), 0U);
}

TEST_F(Directories, ThatAreThereStayAsTheyAre)
{
    ASSERT_TRUE(make_directories(base + "/a", 0755, 0711, directory_sync::none));
    EXPECT_TRUE(make_directories(base + "/a", 0755, 0700, directory_sync::none));
    EXPECT_TRUE(make_directories(base + "/a/b", 0755, 0700, directory_sync::none));
    EXPECT_EQ(mode_of(base + "/a"), 0711U);
    EXPECT_TRUE(make_directories("/", 0755, 0700, directory_sync::each));
    EXPECT_TRUE(make_directories(".", 0755, 0700, directory_sync::each));
}

TEST_F(Directories, AreNotMadeWhereAFileIsInTheWay)
{
    std::ofstream{base + "/file"} << "text";
    for (const char *path : {"/file", "/file/b"}) {
        errno = 0;
        EXPECT_FALSE(make_directories(base + path, 0755, 0700, directory_sync::none)) << path;
        EXPECT_EQ(errno, ENOTDIR) << path;
    }
}

TEST_F(Directories, AreNotMadeOfNoName)
{
    errno = 0;
    EXPECT_FALSE(make_directories("", 0755, 0700, directory_sync::none));
    EXPECT_EQ(errno, ENOENT);
}

TEST(ParentDirectory, IsWhatStandsBeforeTheLastSlash)
{
    EXPECT_EQ(parent_directory("/run/velmd/file"), "/run/velmd");
    EXPECT_EQ(parent_directory("/file"), "/");
    EXPECT_EQ(parent_directory("run/file"), "run");
    EXPECT_EQ(parent_directory("file"), ".");
}

} // namespace
