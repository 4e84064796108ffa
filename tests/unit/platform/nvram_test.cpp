#include <nvram.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "handles/malloc.h"
#include "store_directory.h"

namespace {

class Nvram : public testing::Test {
  protected:
    Nvram()
    {
        setenv("VELM_NVRAM", directory.path().c_str(), 1);
    }
    ~Nvram() override
    {
        unsetenv("VELM_NVRAM");
    }

    store_directory directory;
};

std::string get(const char *name)
{
    const malloc_text value{nvram_unf_get(name)};
    return value == nullptr ? "(absent)" : value.get();
}

TEST_F(Nvram, GetGivesACopyOfTheCallersOwn)
{
    ASSERT_EQ(nvram_set("a", "1"), 0);
    const malloc_text first{nvram_unf_get("a")};
    ASSERT_EQ(nvram_set("a", "2"), 0);
    EXPECT_STREQ(first.get(), "1");
    EXPECT_EQ(get("a"), "2");
}

TEST_F(Nvram, GetOfAnAbsentSettingIsNull)
{
    EXPECT_EQ(nvram_unf_get("absent"), nullptr);
    EXPECT_EQ(nvram_unf_get(""), nullptr);
    EXPECT_EQ(nvram_unf_get(nullptr), nullptr);
}

TEST_F(Nvram, CommitMakesTheSettingsSurviveAPowerCut)
{
    ASSERT_EQ(nvram_set("kept", "1"), 0);
    ASSERT_EQ(nvram_commit(), 0);
    ASSERT_EQ(nvram_set("lost", "1"), 0);
    EXPECT_EQ(seen_after_power_cut(directory), (plain_settings{{"kept", "1"}}));
}

TEST_F(Nvram, LiveSettingsBearTheIdOfTheKernelsBoot)
{
    ASSERT_EQ(nvram_set("a", "1"), 0);
    const std::string id = bytes_of("/proc/sys/kernel/random/boot_id").substr(0, 36);
    ASSERT_EQ(id.size(), 36U);
    EXPECT_NE(bytes_of(directory.file("live")).find(id), std::string::npos);
}

TEST_F(Nvram, AChildProcessAndItsParentSeeEachOthersSettings)
{
    ASSERT_EQ(nvram_set("parent", "1"), 0);
    ASSERT_EQ(in_process([] { return get("parent") == "1" ? nvram_set("child", "2") : 1; }), 0);
    EXPECT_EQ(get("child"), "2");
}

TEST_F(Nvram, ARelativeStoreStaysWhereItIsWhenTheProcessChangesItsDirectory)
{
    const std::string here = std::filesystem::current_path();
    std::filesystem::current_path(directory.parent());
    setenv("VELM_NVRAM", "relative", 1);
    EXPECT_EQ(nvram_set("a", "1"), 0);
    std::filesystem::current_path("/");
    EXPECT_EQ(nvram_set("a", "2"), 0);
    std::filesystem::current_path(here);
    EXPECT_TRUE(std::filesystem::exists(directory.parent() + "/relative/live"));
    EXPECT_FALSE(std::filesystem::exists("/relative"));
}

TEST_F(Nvram, ASlashBehindTheStoresNameChangesNothing)
{
    setenv("VELM_NVRAM", (directory.path() + "//").c_str(), 1);
    ASSERT_EQ(nvram_set("a", "1"), 0);
    EXPECT_EQ(std::filesystem::status(directory.path()).permissions(),
              std::filesystem::perms::owner_all);
}

TEST_F(Nvram, WhatCannotBeSetIsRefusedAndSaidOnceWhileItLasts)
{
    testing::internal::CaptureStderr();
    EXPECT_NE(nvram_set("a=b", "1"), 0);
    EXPECT_NE(nvram_set("a=b", "1"), 0);
    EXPECT_NE(nvram_set("a", std::string(64 * 1024 + 1, 'v').c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "nvram: cannot set: a name is 1 to 255 bytes without \"=\" and control characters\n"
              "nvram: cannot set: a value holds at most 65536 bytes\n");
}

TEST_F(Nvram, SetWithoutNameOrValueIsRefused)
{
    EXPECT_NE(nvram_set(nullptr, "1"), 0);
    EXPECT_NE(nvram_set("a", nullptr), 0);
    EXPECT_EQ(nvram_unf_get("a"), nullptr);
}

} // namespace
