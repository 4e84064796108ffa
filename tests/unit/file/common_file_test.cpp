#include "file/common_file.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include "fakes/captured_log.h"
#include "fakes/temporary_directory.h"

namespace {

class File : public testing::Test {
  protected:
    const temporary_directory directory;
    captured_log log;
};

class SaveFile : public File {};
class ReadFile : public File {};

TEST_F(SaveFile, WritesANewFile)
{
    EXPECT_TRUE(common_file_save_to_file(directory.path("f").c_str(), "text\n"));
    EXPECT_EQ(directory.read("f"), "text\n");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SaveFile, OverAnExistingFileLeavesNoTemporaryFile)
{
    const std::string path = directory.write("f", "a much longer old content");
    EXPECT_TRUE(common_file_save_to_file(path.c_str(), "new"));
    EXPECT_EQ(directory.read("f"), "new");
    EXPECT_FALSE(common_file_exists(directory.path("f.tmp").c_str()));
}

TEST_F(SaveFile, AfterAnInterruptedSaveWarnsAndProceeds)
{
    directory.write("f.tmp", "half of the");
    EXPECT_TRUE(common_file_save_to_file(directory.path("f").c_str(), "new"));
    EXPECT_EQ(directory.read("f"), "new");
    EXPECT_TRUE(log.has("WARN common_file - common_file_save_to_file - previous file write failed, "
                        "proceeding"));
}

TEST_F(SaveFile, IntoAMissingDirectoryFails)
{
    const std::string path = directory.path("missing/f");
    EXPECT_FALSE(common_file_save_to_file(path.c_str(), "new"));
    EXPECT_TRUE(log.has("ERROR common_file - dump_string_to_file - cannot open file " + path +
                        ".tmp for writing"));
    EXPECT_TRUE(
        log.has("ERROR common_file - common_file_save_to_file - error saving file " + path));
}

TEST_F(SaveFile, OnAFullDiskKeepsTheOldContent)
{
    const std::string path = directory.write("f", "old");
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit few_bytes{10, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &few_bytes);
    const bool saved = common_file_save_to_file(path.c_str(), "more than ten bytes");
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_FALSE(saved);
    EXPECT_EQ(directory.read("f"), "old");
    EXPECT_TRUE(
        log.has("ERROR common_file - dump_string_to_file - error writing file " + path + ".tmp"));
}

TEST_F(SaveFile, OntoADirectoryFailsAtTheRename)
{
    const std::string path = directory.path("d");
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_FALSE(common_file_save_to_file(path.c_str(), "new"));
    EXPECT_TRUE(log.has("ERROR common_file - common_file_save_to_file - error renaming from " +
                        path + ".tmp to " + path + ": Is a directory"));
    EXPECT_TRUE(
        log.has("ERROR common_file - common_file_save_to_file - error saving file " + path));
}

TEST_F(SaveFile, WithoutAPathFails)
{
    EXPECT_FALSE(common_file_save_to_file(nullptr, "new"));
    EXPECT_TRUE(log.has("ERROR common_file - common_file_save_to_file - error saving file (null)"));
}

TEST_F(ReadFile, GivesEveryByte)
{
    const std::string content{"a\0b\xff\n", 5};
    const std::string path = directory.write("f", content);
    EXPECT_EQ(read_binary_file(path.c_str()), content);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ReadFile, GivesAnEmptyTextForAnEmptyFile)
{
    EXPECT_EQ(read_binary_file(directory.write("f", "").c_str()), "");
}

TEST_F(ReadFile, ThatIsMissingWarns)
{
    const std::string path = directory.path("missing");
    EXPECT_EQ(read_binary_file(path.c_str()), std::nullopt);
    EXPECT_TRUE(log.has("WARN common_file - read_binary_file - cannot open the file " + path +
                        ": No such file or directory"));
}

TEST_F(ReadFile, WithoutAPathWarns)
{
    EXPECT_EQ(read_binary_file(nullptr), std::nullopt);
    EXPECT_TRUE(log.has(
        "WARN common_file - read_binary_file - cannot open the file (null): Invalid argument"));
}

TEST_F(ReadFile, OfAFifoWithoutWriterIsRefusedAtOnce)
{
    const std::string path = directory.path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(read_binary_file(path.c_str()), std::nullopt);
    EXPECT_TRUE(log.has("WARN common_file - read_binary_file - cannot open the file " + path +
                        ": Invalid argument"));
}

TEST_F(ReadFile, OfADeviceOrADirectoryIsRefused)
{
    EXPECT_EQ(read_binary_file("/dev/zero"), std::nullopt);
    EXPECT_TRUE(log.contains("cannot open the file /dev/zero: Invalid argument"));
    EXPECT_EQ(read_binary_file("/"), std::nullopt);
    EXPECT_TRUE(log.contains("cannot open the file /: Is a directory"));
}

TEST_F(ReadFile, OfTheLargestSizeIsReadAndOneByteMoreIsRefused)
{
    const std::string largest(common_file_size_max, 'x');
    EXPECT_EQ(read_binary_file(directory.write("f", largest).c_str()), largest);
    EXPECT_EQ(read_binary_file(directory.write("g", largest + 'x').c_str()), std::nullopt);
    EXPECT_TRUE(log.has("WARN common_file - read_binary_file - cannot alloc memory for the buffer: "
                        "File too large"));
}

TEST_F(ReadFile, ShorterThanItsSizeWarns)
{
    // The kernel states a page as the size of this file and gives a few bytes.
    constexpr char path[] = "/sys/devices/system/cpu/online";
    if (!common_file_exists(path)) {
        GTEST_SKIP() << "no sysfs here";
    }
    EXPECT_EQ(read_binary_file(path), std::nullopt);
    EXPECT_TRUE(log.contains("WARN common_file - read_binary_file - cannot read data from the "
                             "file: "));
}

TEST_F(File, ExistsExactlyWhenItCanBeLookedUp)
{
    EXPECT_TRUE(common_file_exists(directory.write("f", "").c_str()));
    EXPECT_FALSE(common_file_exists(directory.path("missing").c_str()));
    EXPECT_FALSE(common_file_exists(nullptr));
}

} // namespace
