#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "nvram_format.h"
#include "nvram_store.h"
#include "store_directory.h"

namespace {

const plain_settings first_commit{{"a", "1"}, {"b", "1"}};
const plain_settings second_commit{{"a", "2"}, {"b", "2"}};
const plain_settings half_live{{"a", "3"}, {"b", "2"}};
const plain_settings whole_live{{"a", "3"}, {"b", "4"}};

/// Two commits and two changes after them, each file in its bytes.
class Damage : public testing::Test {
  protected:
    Damage()
    {
        nvram_store store{directory.path(), this_boot};
        for (const plain_settings *const settings : {&first_commit, &second_commit}) {
            EXPECT_EQ(set(store, *settings), 0);
            EXPECT_EQ(store.commit(), 0);
        }
        EXPECT_EQ(set(store, {{"a", "3"}}), 0);
        EXPECT_EQ(set(store, {{"b", "4"}}), 0);
        older = bytes_of(directory.file("committed.0"));
        newer = bytes_of(directory.file("committed.1"));
        live = bytes_of(directory.file("live"));
    }

    /// What a process sees that starts now, and what it writes to standard error about it.
    plain_settings seen(const char *boot)
    {
        testing::internal::CaptureStderr();
        nvram_store store{directory.path(), boot};
        plain_settings settings = all_of(store);
        fault = store.fault();
        said = testing::internal::GetCapturedStderr();
        return settings;
    }

    [[nodiscard]] std::string line(const std::string &text) const
    {
        return "nvram: " + directory.path() + text + "\n";
    }

    store_directory directory;
    std::string older, newer, live, said;
    int fault = 0;
};

/// The file with each byte damaged in turn, in one bit and in all; and each shorter file.
std::vector<std::string> damaged_in_turn(const std::string &whole)
{
    std::vector<std::string> files;
    for (std::size_t i = 0; i < whole.size(); ++i) {
        for (const unsigned char mask : std::to_array<unsigned char>({0x01, 0x80, 0xff})) {
            files.push_back(whole);
            files.back()[i] = static_cast<char>(static_cast<unsigned char>(whole[i]) ^ mask);
        }
        files.push_back(whole.substr(0, i));
    }
    files.push_back(whole + '\0');
    return files;
}

TEST_F(Damage, WithoutAnyTheStoreSaysNothing)
{
    EXPECT_EQ(seen(this_boot), whole_live);
    EXPECT_EQ(said, "");
    EXPECT_EQ(seen(next_boot), second_commit);
    EXPECT_EQ(said, "");
}

TEST_F(Damage, AnyByteOfTheNewestCommitLeavesTheOneBefore)
{
    for (const std::string &bytes : damaged_in_turn(newer)) {
        put_bytes(directory.file("committed.1"), bytes);
        ASSERT_EQ(seen(next_boot), first_commit);
        ASSERT_EQ(said, line("/committed.1 is damaged and left out"));
        ASSERT_EQ(fault, 0);
    }
}

TEST_F(Damage, AnyByteOfTheOlderCommitChangesNothingButIsReported)
{
    for (const std::string &bytes : damaged_in_turn(older)) {
        put_bytes(directory.file("committed.0"), bytes);
        ASSERT_EQ(seen(next_boot), second_commit);
        ASSERT_EQ(said, line("/committed.0 is damaged and left out"));
    }
}

TEST_F(Damage, OfACommitDoesNotTouchWhatIsLive)
{
    put_bytes(directory.file("committed.1"), newer.substr(0, 20));
    EXPECT_EQ(seen(this_boot), whole_live);
    EXPECT_EQ(said, line("/committed.1 is damaged and left out"));
}

TEST_F(Damage, AnyByteOfTheLiveFileLeavesAStateThatOnceWas)
{
    for (const std::string &bytes : damaged_in_turn(live)) {
        put_bytes(directory.file("live"), bytes);
        const plain_settings settings = seen(this_boot);
        // The first record holds the settings of the first set.
        ASSERT_TRUE(settings == second_commit || settings == first_commit ||
                    settings == half_live || settings == whole_live);
        // Cut just behind a record is as if the later changes had not been made: no damage to see.
        const bool whole_records = live.starts_with(bytes) && said.empty();
        ASSERT_TRUE(whole_records || said.starts_with(line("/live").substr(0, 20))) << said;
        ASSERT_TRUE(settings != whole_live || bytes.size() > live.size());
    }
}

TEST_F(Damage, TheNextSetMakesADamagedLiveFileWhole)
{
    put_bytes(directory.file("live"), live.substr(0, live.size() - 1));
    EXPECT_EQ(seen(this_boot), half_live);
    EXPECT_EQ(said, line("/live ends in an unfinished write, which is left out"));
    nvram_store store{directory.path(), this_boot};
    ASSERT_EQ(set(store, {{"c", "5"}}), 0);
    EXPECT_EQ(seen(this_boot), (plain_settings{{"a", "3"}, {"b", "2"}, {"c", "5"}}));
    EXPECT_EQ(said, "");
}

TEST_F(Damage, TheNextCommitMakesTheStoreWholeAndKeepsTheDamagedCopyBeside)
{
    const std::string damaged = newer.substr(0, 20);
    put_bytes(directory.file("committed.1"), damaged);
    nvram_store store{directory.path(), this_boot};
    ASSERT_EQ(store.commit(), 0);
    EXPECT_EQ(seen(next_boot), whole_live);
    EXPECT_EQ(said, "");
    EXPECT_EQ(bytes_of(directory.file("committed.1.damaged")), damaged);
    EXPECT_EQ(bytes_of(directory.file("committed.0")), older);
}

TEST_F(Damage, OfBothCommitsLeavesNoneThatCouldOutdoTheNextOneWhenItCanBeReadAgain)
{
    // As after a read error: what is taken for damaged has a high sequence and comes back.
    put_bytes(directory.file("committed.0"), "garbage");
    put_bytes(directory.file("committed.1"), "garbage");
    nvram_store store{directory.path(), this_boot};
    ASSERT_EQ(store.commit(), 0);
    EXPECT_FALSE(std::filesystem::exists(directory.file("committed.1")));
    EXPECT_EQ(bytes_of(directory.file("committed.0.damaged")), "garbage");
    EXPECT_EQ(bytes_of(directory.file("committed.1.damaged")), "garbage");
    EXPECT_EQ(seen(next_boot), whole_live);
    EXPECT_EQ(said, "");
}

TEST_F(Damage, OfTheLiveFileIsGoneAfterARevert)
{
    put_bytes(directory.file("live"), "garbage");
    nvram_store store{directory.path(), this_boot};
    ASSERT_EQ(store.revert(), 0);
    EXPECT_NE(bytes_of(directory.file("live")), "garbage");
    EXPECT_EQ(seen(this_boot), second_commit);
    EXPECT_EQ(said, "");
}

TEST_F(Damage, IsReportedOnceByAProcessThatReadsOn)
{
    put_bytes(directory.file("committed.0"), "");
    nvram_store store{directory.path(), this_boot};
    testing::internal::CaptureStderr();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(value_of(store, "a"), "3");
        put_bytes(directory.file("live"), live); // read whole again
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line("/committed.0 is damaged and left out"));
}

TEST_F(Damage, OfAllCopiesIsAFaultAndNoCommitWritesOverThem)
{
    for (const char *const name : {"live", "committed.0", "committed.1"}) {
        put_bytes(directory.file(name), "garbage");
    }
    EXPECT_EQ(seen(this_boot), plain_settings{});
    EXPECT_EQ(fault, nvram_all_damaged);
    EXPECT_TRUE(said.ends_with(line(": no good copy is left"))) << said;
    nvram_store store{directory.path(), this_boot};
    EXPECT_EQ(store.commit(), nvram_all_damaged);
    EXPECT_EQ(store.revert(), nvram_all_damaged);
    EXPECT_EQ(bytes_of(directory.file("committed.0")), "garbage");
}

TEST_F(Damage, OfAllCopiesDoesNotStopANewBeginning)
{
    for (const char *const name : {"live", "committed.0", "committed.1"}) {
        put_bytes(directory.file(name), "garbage");
    }
    nvram_store store{directory.path(), this_boot};
    EXPECT_EQ(set(store, {{"new", "1"}}), 0);
    EXPECT_EQ(store.commit(), 0);
    EXPECT_EQ(seen(next_boot), (plain_settings{{"new", "1"}}));
    EXPECT_EQ(bytes_of(directory.file("committed.0.damaged")), "garbage");
}

TEST_F(Damage, OfTheCommittedCopiesLetsNoRevertThrowTheLiveSettingsAway)
{
    put_bytes(directory.file("committed.0"), "");
    put_bytes(directory.file("committed.1"), "");
    nvram_store store{directory.path(), this_boot};
    EXPECT_EQ(store.revert(), nvram_all_damaged);
    EXPECT_EQ(all_of(store), whole_live);
}

TEST_F(Damage, ThingsThatAreNoFilesAreLeftOut)
{
    for (const char *const name : {"live", "committed.1"}) {
        std::filesystem::remove(directory.file(name));
        ASSERT_EQ(mkfifo(directory.file(name).c_str(), 0600), 0);
    }
    std::filesystem::remove(directory.file("committed.0"));
    std::filesystem::create_symlink("/dev/zero", directory.file("committed.0"));
    EXPECT_EQ(seen(this_boot), plain_settings{});
    EXPECT_EQ(fault, nvram_all_damaged);
}

TEST_F(Damage, AFileOfManyGigabytesIsNotRead)
{
    for (const char *const name : {"live", "committed.1"}) {
        std::filesystem::resize_file(directory.file(name), std::uintmax_t{1} << 40);
    }
    EXPECT_EQ(seen(this_boot), first_commit);
}

/// A committed file with this body under right checksums, which are computed here anew: an encoder
/// of ours would not make such a body, and both cannot share a mistake.
std::string forged(const std::string &body)
{
    std::vector<std::uint8_t> file;
    nvram_header_append(file, {9, {}});
    const auto little_endian = [](std::uint32_t value) {
        std::string bytes;
        for (int i = 0; i < 4; ++i) {
            bytes += static_cast<char>(value >> (8 * i));
        }
        return bytes;
    };
    const auto crc = [](const std::string &bytes) {
        std::uint32_t rest = 0xffffffff;
        for (const char byte : bytes) {
            rest ^= static_cast<unsigned char>(byte);
            for (int bit = 0; bit < 8; ++bit) {
                rest = (rest >> 1) ^ ((rest & 1) != 0 ? 0xedb88320U : 0U);
            }
        }
        return ~rest;
    };
    const std::string length = little_endian(static_cast<std::uint32_t>(body.size()));
    return std::string{file.begin(), file.end()} + length + little_endian(crc(length)) + body +
           little_endian(crc(body));
}

std::string change(char kind, const std::string &name, const std::string &value)
{
    std::string bytes{kind};
    bytes += static_cast<char>(name.size());
    bytes += static_cast<char>(name.size() >> 8);
    for (int i = 0; i < 4; ++i) {
        bytes += static_cast<char>(value.size() >> (8 * i));
    }
    return bytes + name + value;
}

TEST_F(Damage, ARecordMadeByHandIsReadWhenItIsWellFormed)
{
    put_bytes(directory.file("committed.1"), forged(change(1, "a", "by hand")));
    EXPECT_EQ(seen(next_boot), (plain_settings{{"a", "by hand"}}));
    EXPECT_EQ(said, "");
}

struct forged_case {
    const char *title;
    std::string body;
};
class Forged : public Damage, public testing::WithParamInterface<forged_case> {};
TEST_P(Forged, ChangeUnderARightChecksumIsDamageAllTheSame)
{
    put_bytes(directory.file("committed.1"), forged(GetParam().body));
    EXPECT_EQ(seen(next_boot), first_commit);
    EXPECT_EQ(said, line("/committed.1 is damaged and left out"));
}
INSTANTIATE_TEST_SUITE_P(
    Bodies, Forged,
    testing::Values(
        forged_case{"UnknownKind", change(3, "a", "1")},
        forged_case{"EmptyName", change(1, "", "1")},
        forged_case{"NameWithEquals", change(1, "a=b", "1")},
        forged_case{"NameTooLong", change(1, std::string(256, 'n'), "1")},
        forged_case{"ValueWithNul", change(1, "a", std::string("x\0y", 3))},
        forged_case{"ValueTooLong", change(1, "a", std::string(nvram_value_max + 1, 'v'))},
        forged_case{"HugeLengths", std::string("\x01\xff\xff\xff\xff\xff\xff name", 12)},
        forged_case{"CutHead", std::string("\x01\x01", 2)},
        forged_case{"GoodThenCut", change(1, "a", "9") + change(1, "b", "9").substr(0, 8)}),
    [](const auto &row) { return std::string{row.param.title}; });

TEST_F(Damage, RandomFilesNeverHurt)
{
    std::mt19937 random{20240229};
    for (int round = 0; round < 300; ++round) {
        for (const char *const name : {"live", "committed.0", "committed.1"}) {
            std::string bytes = round % 2 == 0 ? live : std::string(random() % 300, '\0');
            std::generate(bytes.begin() +
                              static_cast<std::ptrdiff_t>(random() % (bytes.size() + 1)),
                          bytes.end(), [&random] { return static_cast<char>(random()); });
            put_bytes(directory.file(name), bytes);
        }
        const plain_settings settings = seen(this_boot);
        // A prefix of the live file may be all that is left whole.
        ASSERT_TRUE(fault == nvram_all_damaged || settings == first_commit ||
                    settings == second_commit || settings == half_live || settings == whole_live)
            << round;
    }
}

} // namespace
