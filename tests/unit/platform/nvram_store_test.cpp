#include "nvram_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "store_directory.h"

namespace {

class Store : public testing::Test {
  protected:
    store_directory directory;
    nvram_store store{directory.path(), this_boot};
};

TEST_F(Store, IsMadeWithItsParentsOnFirstUse)
{
    nvram_store deep{directory.parent() + "/a/b/c", this_boot};
    EXPECT_EQ(deep.find("x"), nullptr);
    EXPECT_TRUE(std::filesystem::is_directory(directory.parent() + "/a/b/c"));
}

TEST_F(Store, IsReadableForItsOwnerOnly)
{
    ASSERT_EQ(set(store, {{"push_token", "secret"}}), 0);
    ASSERT_EQ(store.commit(), 0);
    for (const char *const name : {"", "/live", "/committed.0"}) {
        struct stat found = {};
        ASSERT_EQ(stat((directory.path() + name).c_str(), &found), 0) << name;
        EXPECT_EQ(found.st_mode & 077, 0U) << name;
    }
}

TEST_F(Store, WhatRootWritesBelongsToTheOwnerOfTheDirectory)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may give files away";
    }
    constexpr uid_t daemon_user = 54321;
    ASSERT_TRUE(std::filesystem::create_directory(directory.path()));
    ASSERT_EQ(chown(directory.path().c_str(), daemon_user, daemon_user), 0);
    ASSERT_EQ(set(store, {{"a", "1"}}), 0);
    ASSERT_EQ(store.commit(), 0);
    for (const char *const name : {"live", "committed.0"}) {
        struct stat found = {};
        ASSERT_EQ(stat(directory.file(name).c_str(), &found), 0) << name;
        EXPECT_EQ(found.st_uid, daemon_user) << name;
        EXPECT_EQ(found.st_gid, daemon_user) << name;
        EXPECT_EQ(found.st_mode & 0777, 0600U) << name;
    }
}

TEST_F(Store, AnAbsentSettingIsNull)
{
    EXPECT_EQ(store.find("absent"), nullptr);
    EXPECT_EQ(store.fault(), 0);
}

TEST_F(Store, AnEmptyValueIsNotAbsent)
{
    ASSERT_EQ(set(store, {{"empty", ""}}), 0);
    ASSERT_NE(store.find("empty"), nullptr);
    EXPECT_EQ(*store.find("empty"), "");
}

TEST_F(Store, OtherProcessesSeeAnUncommittedSettingAtOnce)
{
    nvram_store other{directory.path(), this_boot};
    EXPECT_EQ(other.find("a"), nullptr);
    ASSERT_EQ(set(store, {{"a", "1"}}), 0);
    EXPECT_EQ(value_of(other, "a"), "1");
    ASSERT_EQ(set(other, {{"a", "2"}}), 0);
    EXPECT_EQ(value_of(store, "a"), "2");
    ASSERT_EQ(unset(store, "a"), 0);
    EXPECT_EQ(other.find("a"), nullptr);
}

TEST_F(Store, AReaderSeesEachOfManyChangesThatAreMadeFasterThanTheClockTicks)
{
    nvram_store other{directory.path(), this_boot};
    for (int i = 0; i < 2000; ++i) {
        const std::string value = std::to_string(1000 + i);
        ASSERT_EQ(set(store, {{"counter", value}}), 0);
        ASSERT_EQ(value_of(other, "counter"), value);
        ASSERT_EQ(value_of(other, "counter"), value) << "while nothing changes";
    }
}

TEST_F(Store, AReaderSeesADirectoryThatWasPutInThePlaceOfItsOwn)
{
    ASSERT_EQ(set(store, {{"a", "1"}}), 0);
    std::filesystem::copy(directory.path(), directory.path() + "-kept");
    ASSERT_EQ(set(store, {{"a", "2"}}), 0);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(value_of(store, "a"), "2");
    }
    std::filesystem::rename(directory.path(), directory.path() + "-away");
    std::filesystem::rename(directory.path() + "-kept", directory.path());
    EXPECT_EQ(value_of(store, "a"), "1");
}

TEST_F(Store, AReaderSeesAChangeEvenWhenTheFileHasComeBackToTheSameInodeNumberAndSize)
{
    nvram_store other{directory.path(), this_boot};
    for (int i = 0; i < 200; ++i) {
        // Each revert replaces the file; the second may get the inode number of the first.
        const std::string value = std::to_string(1000 + i);
        ASSERT_EQ(store.revert(), 0);
        ASSERT_EQ(set(store, {{"counter", "tick"}}), 0);
        ASSERT_EQ(store.revert(), 0);
        ASSERT_EQ(set(store, {{"counter", value}}), 0);
        ASSERT_EQ(value_of(other, "counter"), value);
    }
}

TEST_F(Store, APowerCutDropsWhatWasNotCommitted)
{
    ASSERT_EQ(set(store, {{"kept", "1"}, {"changed", "old"}}), 0);
    ASSERT_EQ(store.commit(), 0);
    ASSERT_EQ(set(store, {{"changed", "new"}, {"added", "1"}}), 0);
    EXPECT_EQ(seen_after_power_cut(directory), (plain_settings{{"changed", "old"}, {"kept", "1"}}));
}

TEST_F(Store, ASettingOfAnEarlierBootDoesNotComeBackWithTheFirstSetOfTheNext)
{
    ASSERT_EQ(set(store, {{"lost", "1"}}), 0);
    nvram_store later{directory.path(), next_boot};
    ASSERT_EQ(set(later, {{"kept", "1"}}), 0);
    EXPECT_EQ(all_of(later), (plain_settings{{"kept", "1"}}));
}

TEST_F(Store, RevertDropsWhatWasNotCommittedForEveryProcess)
{
    nvram_store other{directory.path(), this_boot};
    ASSERT_EQ(set(store, {{"a", "1"}}), 0);
    ASSERT_EQ(store.commit(), 0);
    ASSERT_EQ(set(other, {{"a", "2"}, {"b", "2"}}), 0);
    ASSERT_EQ(store.revert(), 0);
    EXPECT_EQ(all_of(other), (plain_settings{{"a", "1"}}));
    EXPECT_EQ(all_of(store), all_of(other));
}

TEST_F(Store, RevertWithoutAnyCommitLeavesNothing)
{
    ASSERT_EQ(set(store, {{"a", "1"}}), 0);
    ASSERT_EQ(store.revert(), 0);
    EXPECT_EQ(all_of(store), plain_settings{});
}

TEST_F(Store, RemovedSettingsStayRemovedAfterACommit)
{
    ASSERT_EQ(set(store, {{"a", "1"}, {"b", "2"}}), 0);
    ASSERT_EQ(store.commit(), 0);
    ASSERT_EQ(unset(store, "a"), 0);
    ASSERT_EQ(store.commit(), 0);
    EXPECT_EQ(seen_after_power_cut(directory), (plain_settings{{"b", "2"}}));
}

class Value : public testing::TestWithParam<std::string> {};
TEST_P(Value, ComesBackAsItWasSet)
{
    const store_directory directory;
    nvram_store store{directory.path(), this_boot};
    ASSERT_EQ(set(store, {{"name", GetParam()}, {"other", "1"}}), 0);
    ASSERT_EQ(store.commit(), 0);
    const plain_settings expected{{"name", GetParam()}, {"other", "1"}};
    EXPECT_EQ(all_of(store), expected);
    EXPECT_EQ(seen_now(directory), expected);
    EXPECT_EQ(seen_after_power_cut(directory), expected);
}

std::string every_byte_but_nul()
{
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

INSTANTIATE_TEST_SUITE_P(Texts, Value,
                         testing::Values("", "plain", "x\nzelkad_pairing_0_status=Valid", "a=b==c",
                                         "\"quoted\" 'and' \\slashed\\", "\xf0\x9f\x93\xb1 phone",
                                         "\xff\xfe no UTF-8", " blanks ", "#;\t\r",
                                         every_byte_but_nul(), std::string(nvram_value_max, 'v')));

struct refusal {
    const char *title;
    std::string name, value;
    int result;
};
class Change : public testing::TestWithParam<refusal> {};
TEST_P(Change, GivesItsResultAndNothingElseOfTheCallIsSetOnFailure)
{
    const store_directory directory;
    nvram_store store{directory.path(), this_boot};
    ASSERT_EQ(set(store, {{"before", "1"}}), 0);
    EXPECT_EQ(set(store, {{"beside", "1"}, {GetParam().name, GetParam().value}}),
              GetParam().result);
    EXPECT_EQ(store.find("beside") != nullptr, GetParam().result == 0);
    EXPECT_EQ(value_of(store, "before"), "1");
}
INSTANTIATE_TEST_SUITE_P(
    Edges, Change,
    testing::Values(
        refusal{"EmptyName", "", "v", nvram_bad_name},
        refusal{"NameWithEquals", "a=b", "v", nvram_bad_name},
        refusal{"NameWithNewline", "a\nb", "v", nvram_bad_name},
        refusal{"NameWithDelete", "a\x7f", "v", nvram_bad_name},
        refusal{"NameOfControlOne", "\x01", "v", nvram_bad_name},
        refusal{"NameWithNul", std::string("a\0b", 3), "v", nvram_bad_name},
        refusal{"NameWithBlank", "a b", "v", 0},
        refusal{"LongestName", std::string(nvram_name_max, 'n'), "v", 0},
        refusal{"NameTooLong", std::string(nvram_name_max + 1, 'n'), "v", nvram_bad_name},
        refusal{"ValueWithNul", "a", std::string("a\0b", 3), nvram_bad_name},
        refusal{"LongestValue", "a", std::string(nvram_value_max, 'v'), 0},
        refusal{"ValueTooLong", "a", std::string(nvram_value_max + 1, 'v'), nvram_value_too_long}),
    [](const auto &row) { return std::string{row.param.title}; });

TEST_F(Store, WhatTheFileSystemRefusesIsToldInItsOwnWords)
{
    for (const int rc : {EINVAL, EMSGSIZE, EDQUOT, ENOTSUP, EBADMSG}) {
        EXPECT_STREQ(nvram_store_error_text(rc), std::strerror(rc));
    }
    EXPECT_STREQ(nvram_store_error_text(nvram_too_much), "the settings would take more than 1 MiB");
}

TEST_F(Store, HoldsUpToItsLimitAndRefusesWhatIsBeyond)
{
    const std::string value(nvram_value_max - nvram_setting_overhead - 2, 'v');
    for (int i = 10; i < 26; ++i) {
        ASSERT_EQ(set(store, {{std::to_string(i), value}}), 0) << i;
    }
    EXPECT_EQ(nvram_settings_size(store.settings()), nvram_total_max);
    EXPECT_EQ(set(store, {{"x", ""}}), nvram_too_much);
    EXPECT_EQ(store.find("x"), nullptr);
    ASSERT_EQ(unset(store, "10"), 0);
    EXPECT_EQ(set(store, {{"x", ""}}), 0);
    ASSERT_EQ(store.commit(), 0);
    EXPECT_EQ(seen_after_power_cut(directory).size(), 16U);
}

TEST_F(Store, StaysSmallHoweverOftenASettingChanges)
{
    const std::string half(nvram_value_max / 2, 'v');
    for (int i = 0; i < 400; ++i) {
        ASSERT_EQ(set(store, {{"a", half + std::to_string(i)}}), 0);
        ASSERT_LT(std::filesystem::file_size(directory.file("live")), 512U * 1024);
    }
    EXPECT_EQ(seen_now(directory), (plain_settings{{"a", half + "399"}}));
}

TEST_F(Store, OneCallThatNamesASettingVeryOftenIsReadByOthers)
{
    const std::string value(nvram_value_max, 'v');
    const std::vector<nvram_change> changes(nvram_file_max / nvram_value_max + 1, {"a", value});
    ASSERT_EQ(set(store, {{"kept", "1"}}), 0);
    ASSERT_EQ(store.apply(changes), 0);
    EXPECT_EQ(seen_now(directory), (plain_settings{{"a", value}, {"kept", "1"}}));
}

TEST_F(Store, AnUnchangedValueWritesNothing)
{
    ASSERT_EQ(set(store, {{"a", "1"}}), 0);
    const auto size = std::filesystem::file_size(directory.file("live"));
    ASSERT_EQ(set(store, {{"a", "1"}}), 0);
    ASSERT_EQ(unset(store, "absent"), 0);
    EXPECT_EQ(std::filesystem::file_size(directory.file("live")), size);
}

TEST_F(Store, ASecondCommitWithoutChangeWritesNothing)
{
    ASSERT_EQ(set(store, {{"a", "1"}}), 0);
    ASSERT_EQ(store.commit(), 0);
    ASSERT_EQ(store.commit(), 0);
    EXPECT_FALSE(std::filesystem::exists(directory.file("committed.1")));
}

TEST_F(Store, WithoutABootIdNothingCanBeSetButTheCommittedIsRead)
{
    ASSERT_EQ(set(store, {{"a", "1"}}), 0);
    ASSERT_EQ(store.commit(), 0);
    nvram_store blind{directory.path(), ""};
    EXPECT_EQ(value_of(blind, "a"), "1");
    EXPECT_EQ(set(blind, {{"a", "2"}}), nvram_no_boot_id);
    EXPECT_EQ(blind.commit(), nvram_no_boot_id) << "what is live was not seen";
    EXPECT_EQ(blind.revert(), nvram_no_boot_id);
}

TEST_F(Store, ADirectoryThatCannotBeMadeIsAFaultAndReportedOnce)
{
    put_bytes(directory.parent() + "/file", "no directory");
    nvram_store under_file{directory.parent() + "/file/store", this_boot};
    testing::internal::CaptureStderr();
    EXPECT_EQ(under_file.find("a"), nullptr);
    EXPECT_EQ(under_file.find("a"), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "nvram: " + directory.parent() + "/file/store: Not a directory\n");
    EXPECT_EQ(under_file.fault(), ENOTDIR);
    EXPECT_EQ(set(under_file, {{"a", "1"}}), ENOTDIR);
    EXPECT_EQ(under_file.commit(), ENOTDIR);
}

TEST_F(Store, AStoreThatIsTakenAwayIsEmptyAndMadeAnew)
{
    ASSERT_EQ(set(store, {{"a", "1"}}), 0);
    std::filesystem::remove_all(directory.path());
    EXPECT_EQ(store.find("a"), nullptr);
    EXPECT_EQ(set(store, {{"b", "2"}}), 0);
    EXPECT_EQ(seen_now(directory), (plain_settings{{"b", "2"}}));
}

TEST_F(Store, ALockHolderThatNeverLetsGoMakesAChangeFailInsteadOfHanging)
{
    ASSERT_EQ(set(store, {{"a", "1"}}), 0);
    const unique_fd holder{open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    ASSERT_EQ(flock(holder.get(), LOCK_EX), 0);
    EXPECT_EQ(set(store, {{"a", "2"}}), ETIMEDOUT);
    EXPECT_EQ(value_of(store, "a"), "1") << "reads need no lock";

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(set(store, {{"a", "3"}}), ETIMEDOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds{1})
        << "the first call has waited for all that follow";
    ASSERT_EQ(flock(holder.get(), LOCK_UN), 0);
    EXPECT_EQ(set(store, {{"a", "4"}}), 0);
}

std::size_t open_descriptors()
{
    std::size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator{"/proc/self/fd"}) {
        (void)entry;
        ++count;
    }
    return count;
}

TEST_F(Store, KeepsTwoDescriptorsWhateverIsDoneAndLetsNoProgramInheritThem)
{
    const std::size_t before = open_descriptors();
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(set(store, {{"a", std::to_string(i)}}), 0);
        ASSERT_EQ(i % 2 == 0 ? store.commit() : store.revert(), 0);
        ASSERT_NE(store.find("a"), nullptr);
    }
    ASSERT_NE(store.find("a"), nullptr); // only who reads again watches for changes
    EXPECT_EQ(open_descriptors(), before + 2);
    for (int fd = 3; fd < 64; ++fd) {
        char target[256] = {};
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        if (readlink(link.c_str(), target, sizeof target - 1) > 0 &&
            (std::string{target}.starts_with(directory.path()) ||
             std::string{target} == "anon_inode:inotify")) {
            EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << target;
        }
    }
}

TEST_F(Store, WithoutFreeDescriptorsTheLastKnownSettingsServe)
{
    ASSERT_EQ(set(store, {{"a", "1"}}), 0);
    ASSERT_EQ(store.commit(), 0);
    nvram_store other{directory.path(), this_boot};
    ASSERT_EQ(set(other, {{"a", "2"}}), 0);
    ASSERT_EQ(other.revert(), 0); // `store` would have to open the new live file
    ASSERT_EQ(in_process([this] {
                  const rlimit none{0, 0};
                  if (setrlimit(RLIMIT_NOFILE, &none) != 0) {
                      return 1;
                  }
                  const bool served = value_of(store, "a") == "1";
                  const bool refused = set(store, {{"a", "3"}}) == EMFILE;
                  return served && refused ? 0 : 2;
              }),
              0);
}

double microseconds_each(int times, const auto &body)
{
    double best = std::numeric_limits<double>::max();
    for (int round = 0; round < 5; ++round) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < times; ++i) {
            body(i);
        }
        const std::chrono::duration<double, std::micro> took =
            std::chrono::steady_clock::now() - start;
        best = std::min(best, took.count() / times);
    }
    return best;
}

TEST_F(Store, AReadAmongFiveHundredSettingsIsFarCheaperThanParsingTheStore)
{
    plain_settings settings;
    for (int i = 0; i < 500; ++i) {
        settings["zelkad_pairing_" + std::to_string(i) + "_push_token"] = std::string(40, 'v');
    }
    ASSERT_EQ(set(store, settings), 0);
    const double read = microseconds_each(2000, [this](int i) {
        ASSERT_NE(store.find("zelkad_pairing_" + std::to_string(i % 500) + "_push_token"), nullptr);
    });
    const double parse = microseconds_each(20, [this](int) {
        nvram_store fresh{directory.path(), this_boot};
        ASSERT_NE(fresh.find("zelkad_pairing_7_push_token"), nullptr);
    });
    std::printf("one read: %.2f us, parsing the store: %.1f us\n", read, parse);
    EXPECT_LT(read * 10, parse);
}

} // namespace
