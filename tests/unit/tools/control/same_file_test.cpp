#include "tools/control/same_file.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "fakes/temporary_directory.h"

namespace {

class SameFile : public testing::Test {
  protected:
    SameFile()
    {
        std::filesystem::create_symlink(one, link);
    }

    const temporary_directory directory;
    const std::string one = directory.write("one", "a");
    const std::string other = directory.write("other", "a");
    const std::string link = directory.path("link");
};

TEST_F(SameFile, IsOneByAnyPathToIt)
{
    EXPECT_TRUE(control_is_same_file(one, one));
    EXPECT_TRUE(control_is_same_file(one, link));
    EXPECT_TRUE(control_is_same_file(one, directory.path("./one")));
}

TEST_F(SameFile, IsNoOtherWithTheSameContent)
{
    EXPECT_FALSE(control_is_same_file(one, other));
}

TEST_F(SameFile, ThatIsMissingIsKnownByItsPathAlone)
{
    const std::string missing = directory.path("missing");
    EXPECT_TRUE(control_is_same_file(missing, missing));
    EXPECT_FALSE(control_is_same_file(missing, one));
    EXPECT_FALSE(control_is_same_file("", one));
}

} // namespace
