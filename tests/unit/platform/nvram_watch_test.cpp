#include "nvram_watch.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "fakes/no_descriptors.h"

#include "store_directory.h"

namespace {

namespace fs = std::filesystem;

void write_to(const std::string &path)
{
    std::ofstream{path, std::ios::app} << "more";
}

class Watch : public testing::Test {
  protected:
    Watch()
    {
        fs::create_directories(at);
        write_to(at + "/live");
    }

    void look()
    {
        watch.begin(at);
        watch.settle();
    }

    store_directory directory;
    const std::string at = directory.path();
    nvram_watch watch;
};

TEST_F(Watch, IsNotQuietBeforeTheFirstLook)
{
    EXPECT_FALSE(watch.is_quiet());
}

TEST_F(Watch, IsQuietFromALookOnForAsLongAsNothingChanges)
{
    look();
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(watch.is_quiet()) << i;
    }
}

TEST_F(Watch, IsNotQuietWhenTheLookFoundOtherThanWhatTheReaderHolds)
{
    look();
    watch.begin(at);
    EXPECT_FALSE(watch.is_quiet());
}

TEST_F(Watch, ReadingIsNoChange)
{
    look();
    std::string word;
    std::ifstream{at + "/live"} >> word;
    EXPECT_EQ(word, "more");
    EXPECT_TRUE(watch.is_quiet());
}

struct change_case {
    const char *name;
    std::function<void(const std::string &)> make;
};
class WatchedChange : public Watch, public testing::WithParamInterface<change_case> {};
TEST_P(WatchedChange, IsSeenAtOnceAndUntilTheNextLook)
{
    look();
    ASSERT_TRUE(watch.is_quiet());
    GetParam().make(at);
    EXPECT_FALSE(watch.is_quiet());
    EXPECT_FALSE(watch.is_quiet());
}
INSTANTIATE_TEST_SUITE_P(
    Kinds, WatchedChange,
    testing::Values(
        change_case{"Append", [](const std::string &at) { write_to(at + "/live"); }},
        change_case{"NewFile", [](const std::string &at) { write_to(at + "/other"); }},
        change_case{"Removal", [](const std::string &at) { fs::remove(at + "/live"); }},
        change_case{"Cut", [](const std::string &at) { fs::resize_file(at + "/live", 1); }},
        change_case{"MovedOut",
                    [](const std::string &at) { fs::rename(at + "/live", at + "-live"); }},
        change_case{"Replacement",
                    [](const std::string &at) {
                        write_to(at + "-new");
                        fs::rename(at + "-new", at + "/live");
                    }},
        change_case{"DirectoryMoved", [](const std::string &at) { fs::rename(at, at + "-away"); }},
        change_case{"DirectoryRemoved", [](const std::string &at) { fs::remove_all(at); }}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(Watch, AnotherDirectoryThatComesToThePathIsWatchedInsteadOfTheFirst)
{
    look();
    fs::rename(at, at + "-away");
    fs::create_directory(at);
    look();
    write_to(at + "-away/live");
    EXPECT_TRUE(watch.is_quiet()) << "the first is watched still";
    write_to(at + "/live");
    EXPECT_FALSE(watch.is_quiet());
}

TEST_F(Watch, ADirectoryThatIsNotThereIsNeverQuietUntilItComes)
{
    fs::remove_all(at);
    look();
    EXPECT_FALSE(watch.is_quiet());
    fs::create_directory(at);
    look();
    EXPECT_TRUE(watch.is_quiet());
}

TEST_F(Watch, WithoutAFreeDescriptorItIsNeverQuiet)
{
    const std::string path = at;
    nvram_watch blind;
    bool quiet = true;
    {
        const no_descriptors none;
        // Nothing of the fixture here: the sanitizer opens a pipe to look at it.
        blind.begin(path);
        blind.settle();
        quiet = blind.is_quiet();
    }
    EXPECT_FALSE(quiet);
    blind.begin(path);
    blind.settle();
    EXPECT_TRUE(blind.is_quiet());
}

} // namespace
