#include "logger/common_logger.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "conffile/conffile.h"
#include "fakes/temporary_directory.h"
#include "handles/fd.h"

// The system log, recorded. <syslog.h> is left out: hardened builds make syslog an inline function
// there that calls __syslog_chk.
namespace {

constexpr int log_cons = 2, log_pid = 1, log_user = 8;
constexpr int log_err = 3, log_warning = 4, log_notice = 5, log_info = 6, log_debug = 7;

struct syslog_entry {
    int priority;
    std::string text;
    bool operator==(const syslog_entry &) const = default;
};

struct syslog_record {
    bool open = false;
    std::string ident;
    int option = 0, facility = 0;
    std::vector<syslog_entry> entries;
};
syslog_record recorded_syslog;

[[gnu::format(printf, 2, 0)]] void record_syslog(int priority, const char *format,
                                                 va_list arguments)
{
    std::vector<char> text(10000);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    recorded_syslog.entries.push_back({priority, text.data()});
}

int allocations = 0;

} // namespace

extern "C" {
void openlog(const char *ident, int option, int facility)
{
    recorded_syslog.open = true;
    recorded_syslog.ident = ident;
    recorded_syslog.option = option;
    recorded_syslog.facility = facility;
}
void closelog()
{
    recorded_syslog.open = false;
}
[[gnu::format(printf, 2, 3)]] void syslog(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    record_syslog(priority, format, arguments);
    va_end(arguments);
}
[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    record_syslog(priority, format, arguments);
    va_end(arguments);
}
}

// Not inlined: the compiler would take malloc and free for a mismatched pair.
[[gnu::noinline]] void *operator new(std::size_t size)
{
    ++allocations;
    void *const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        std::abort();
    }
    return memory;
}
[[gnu::noinline]] void operator delete(void *memory) noexcept
{
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void *memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr char log_category[] = "main";

class LoggerOutput : public testing::Test {
  protected:
    LoggerOutput()
    {
        reset_all();
    }
    ~LoggerOutput() override
    {
        reset_all();
    }

    static void reset_all()
    {
        common_logger_configure_from_string(
            "level=debug:stdout=no:syslog=no:file=no:lineandfile=no:syslog.ident=velmd:enabled=no");
        recorded_syslog = {};
    }

    /// What standard output got while `log` ran.
    template <typename Function>
    static std::string stdout_of(Function log)
    {
        testing::internal::CaptureStdout();
        log();
        return testing::internal::GetCapturedStdout();
    }

    const temporary_directory directory;
};

TEST_F(LoggerOutput, StdoutAloneTurnsLoggingOn)
{
    common_logger_configure_from_string("level=trace:stdout=yes");
    EXPECT_THAT(stdout_of([] { LOG_INFO("here"); }), HasSubstr("INFO main - here\n"));
}

TEST_F(LoggerOutput, DisablingClearsCategoriesFileAndSyslogButKeepsStdout)
{
    common_logger_configure_from_string(
        "level=trace:stdout=yes:syslog=yes:file=yes:category.main=error");
    common_logger_set("file.name", directory.path("log").c_str());
    common_logger_set("enabled", "no");
    EXPECT_FALSE(common_logger_is_enabled());
    EXPECT_FALSE(recorded_syslog.open);
    common_logger_set("enabled", "yes");
    EXPECT_THAT(stdout_of([] { LOG_TRACE("again"); }), HasSubstr("TRACE main - again\n"));
    EXPECT_THAT(recorded_syslog.entries, IsEmpty());
    EXPECT_EQ(directory.read("log"), "");
}

TEST_F(LoggerOutput, TurningAnOutputOffLeavesLoggingOn)
{
    common_logger_configure_from_string("stdout=yes:stdout=no");
    EXPECT_TRUE(common_logger_is_enabled());
    EXPECT_EQ(stdout_of([] { LOG_ERROR("nowhere"); }), "");
}

TEST_F(LoggerOutput, SplitsAnItemAtItsFirstEqualsSign)
{
    common_logger_configure_from_string("enabled=yes:syslog=yes:syslog.ident=a=b");
    EXPECT_EQ(recorded_syslog.ident, "a=b");
}

TEST_F(LoggerOutput, ALineIsTimeLevelCategoryMessage)
{
    common_logger_configure_from_string("stdout=yes");
    EXPECT_THAT(stdout_of([] { LOG_WARN("%s - %d", "f", 7); }),
                MatchesRegex("....-..-.. ..:..:..\\.... +WARN main - f - 7\n"));
    EXPECT_THAT(stdout_of([] { LOG_ERROR("x"); }),
                MatchesRegex("[0-9]+-[0-9]+-[0-9]+ [0-9:]+\\.[0-9]+ ERROR main - x\n"));
}

TEST_F(LoggerOutput, TheLevelIsRightAlignedInFiveColumns)
{
    common_logger_configure_from_string("stdout=yes");
    EXPECT_EQ(stdout_of([] { LOG_INFO("x"); }).substr(24), " INFO main - x\n");
    EXPECT_EQ(stdout_of([] { LOG_DEBUG("x"); }).substr(24), "DEBUG main - x\n");
}

TEST_F(LoggerOutput, SourceFileAndLineAreAddedOnDemand)
{
    common_logger_configure_from_string("stdout=yes:lineandfile=yes");
    EXPECT_EQ(stdout_of([] {
                  common_logger_log("main", LOG_LEVEL_ERROR, "src/main.cpp", 12, "x");
              }).substr(24),
              "ERROR file: src/main.cpp, line: 12 - main - x\n");
}

TEST_F(LoggerOutput, TheMacrosNameTheFileFromTheRoot)
{
    common_logger_configure_from_string("stdout=yes:lineandfile=yes");
    EXPECT_THAT(stdout_of([] { LOG_ERROR("x"); }),
                HasSubstr("ERROR file: tests/unit/logger/common_logger_output_test.cpp, line: "));
}

TEST_F(LoggerOutput, ControlCharactersInAMessageCannotForgeALine)
{
    common_logger_configure_from_string("stdout=yes:syslog=yes:file=yes");
    common_logger_set("file.name", directory.path("log").c_str());
    const std::string clean = "ERROR main - a ERROR b  c?[2J???d\xc3\xa4";
    EXPECT_EQ(stdout_of([] {
                  LOG_ERROR("%s", "a\nERROR b\r\tc\x1b[2J\x7f\xc2\x9b"
                                  "d\xc3\xa4");
              }).substr(24),
              clean + '\n');
    ASSERT_EQ(recorded_syslog.entries.size(), 1u);
    EXPECT_EQ(recorded_syslog.entries[0].text, clean);
    EXPECT_EQ(directory.read("log").substr(24), clean + '\n');
}

TEST_F(LoggerOutput, NoControlCharacterReachesALogRaw)
{
    common_logger_configure_from_string("stdout=yes");
    for (int c = 1; c < 0xa0; ++c) {
        const std::string text = c < 0x80 ? std::string(1, static_cast<char>(c))
                                          : std::string{'\xc2', static_cast<char>(c)};
        const std::string line = stdout_of([&text] { LOG_ERROR("<%s>", text.c_str()); });
        const bool is_control = c < 0x20 || c >= 0x7f;
        EXPECT_EQ(line.find('<' + text + '>') == std::string::npos, is_control) << c;
        EXPECT_EQ(line.find('\n'), line.size() - 1) << c;
    }
}

TEST_F(LoggerOutput, AMessageBeyondTheBufferIsCut)
{
    common_logger_configure_from_string("stdout=yes:syslog=yes:file=yes");
    common_logger_set("file.name", directory.path("log").c_str());
    const std::string text = stdout_of([] { LOG_ERROR("%s", std::string(9000, 'x').c_str()); });
    EXPECT_EQ(text.size(), 8000u) << "7999 characters and the newline of puts";
    EXPECT_TRUE(text.ends_with("x\n"));
    ASSERT_EQ(recorded_syslog.entries.size(), 1u);
    EXPECT_EQ(recorded_syslog.entries[0].text.size(), 7999u - 24u);
    const std::string file = directory.read("log");
    EXPECT_EQ(file.size(), 7999u) << "the newline takes the place of the last character";
    EXPECT_TRUE(file.ends_with("x\n"));
}

TEST_F(LoggerOutput, ALineThatJustFitsIsWhole)
{
    common_logger_configure_from_string("stdout=yes:file=yes");
    common_logger_set("file.name", directory.path("log").c_str());
    const std::string head = "2026-01-01 00:00:00.000 ERROR main - ";
    const std::string message = std::string(7998 - head.size() - 1, 'x') + 'y';
    EXPECT_TRUE(stdout_of([&] { LOG_ERROR("%s", message.c_str()); }).ends_with("xy\n"));
    EXPECT_TRUE(directory.read("log").ends_with("xy\n"));
}

TEST_F(LoggerOutput, AMessageThatCannotBeFormattedIsReportedOnStandardError)
{
    common_logger_configure_from_string("stdout=yes");
    constexpr wchar_t no_character[] = {static_cast<wchar_t>(0xd800), 0};
    testing::internal::CaptureStderr();
    EXPECT_EQ(stdout_of([&] { LOG_ERROR("%ls", no_character); }), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "vsnprintf failed due to error " + std::to_string(EILSEQ) + "\n");
}

TEST_F(LoggerOutput, SyslogGetsTheTextFromTheLevelOnByPriority)
{
    common_logger_configure_from_string("level=trace:syslog=yes");
    LOG_TRACE("t");
    LOG_DEBUG("d");
    LOG_INFO("i");
    LOG_WARN("w");
    LOG_ERROR("e");
    common_logger_log("main", 5, "f", 1, "above");
    EXPECT_THAT(recorded_syslog.entries, ElementsAre(syslog_entry{log_debug, "TRACE main - t"},
                                                     syslog_entry{log_info, "DEBUG main - d"},
                                                     syslog_entry{log_notice, " INFO main - i"},
                                                     syslog_entry{log_warning, " WARN main - w"},
                                                     syslog_entry{log_err, "ERROR main - e"},
                                                     syslog_entry{log_err, "SYSLOG main - above"}));
}

TEST_F(LoggerOutput, SyslogIsOpenedAfterTheLastItemWithTheIdent)
{
    common_logger_configure_from_string("syslog=yes:syslog.ident=daemon");
    EXPECT_TRUE(recorded_syslog.open);
    EXPECT_EQ(recorded_syslog.ident, "daemon");
    EXPECT_EQ(recorded_syslog.option, log_cons | log_pid);
    EXPECT_EQ(recorded_syslog.facility, log_user);
}

TEST_F(LoggerOutput, SyslogIsClosedWhenItIsOff)
{
    common_logger_configure_from_string("syslog=yes");
    common_logger_configure_from_string("enabled=yes");
    EXPECT_FALSE(recorded_syslog.open);
    common_logger_configure_from_string("syslog=yes:syslog=no");
    EXPECT_FALSE(recorded_syslog.open);
}

TEST_F(LoggerOutput, ANewIdentReachesAnOpenSyslogAtOnce)
{
    common_logger_configure_from_string("syslog=yes:syslog.ident=first");
    common_logger_set("syslog.ident", "a second one that is too long for the place of the first");
    EXPECT_EQ(recorded_syslog.ident, "a second one that is too long for the place of the first");
}

TEST_F(LoggerOutput, TheFileIsAppendedToAndOpenedForEveryLine)
{
    directory.write("log", "before\n");
    common_logger_configure_from_string("file=yes");
    common_logger_set("file.name", directory.path("log").c_str());
    LOG_ERROR("one");
    EXPECT_THAT(directory.read("log"), MatchesRegex("before\n.* ERROR main - one\n"));
    std::filesystem::remove(directory.path("log"));
    LOG_ERROR("two");
    EXPECT_THAT(directory.read("log"), MatchesRegex("[^\n]* ERROR main - two\n"));
}

TEST_F(LoggerOutput, AFileThatCannotBeOpenedLosesTheLineSilently)
{
    common_logger_configure_from_string("stdout=yes:file=yes:file.name=/nowhere/log");
    testing::internal::CaptureStderr();
    EXPECT_THAT(stdout_of([] { LOG_ERROR("x"); }), HasSubstr("ERROR main - x\n"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(LoggerOutput, AFifoNeverBlocksAndItsLinesAreLostWhileNobodyReads)
{
    const std::string fifo = directory.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    common_logger_configure_from_string("file=yes");
    common_logger_set("file.name", fifo.c_str());
    alarm(20); // a logger that waits would wait for ever
    LOG_ERROR("nobody reads");
    const unique_fd reader{open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    ASSERT_TRUE(reader);
    LOG_ERROR("somebody reads");
    std::string text(65536, '\0');
    text.resize(static_cast<std::size_t>(read(reader.get(), text.data(), text.size())));
    EXPECT_TRUE(text.ends_with("ERROR main - somebody reads\n"));
    EXPECT_EQ(text.find("nobody"), std::string::npos);
    for (int line = 0; line < 2000; ++line) {
        LOG_ERROR("more than the pipe holds, and the reader sleeps");
    }
    alarm(0);
}

/// The length of a line whose message is one letter.
constexpr std::size_t short_line = 24 + 5 + 1 + 4 + 3 + 1 + 1;

class LogFile : public LoggerOutput {
  protected:
    LogFile()
    {
        common_logger_configure_from_string("file=yes");
        common_logger_set("file.name", directory.path("log").c_str());
    }
    void lines(int count)
    {
        for (int line = 0; line < count; ++line) {
            LOG_ERROR("%c", 'a' + line);
        }
    }
    bool exists(const char *name)
    {
        return std::filesystem::exists(directory.path(name));
    }
};

TEST_F(LogFile, ThatWouldBecomeTooLongIsRenamedAndBegunAnew)
{
    common_logger_set("file.maxsize", std::to_string(2 * short_line).c_str());
    lines(2);
    EXPECT_FALSE(exists("log.1"));
    lines(3);
    EXPECT_THAT(directory.read("log.1"), MatchesRegex(".* main - a\n.* main - b\n"));
    EXPECT_THAT(directory.read("log"), MatchesRegex("[^\n]* main - c\n"));
}

TEST_F(LogFile, OfSixteenMebibytesIsFullUnlessAnotherSizeIsNamed)
{
    directory.write("log", "");
    std::filesystem::resize_file(directory.path("log"), 16 * 1024 * 1024 - short_line);
    lines(1);
    EXPECT_FALSE(exists("log.1"));
    lines(1);
    EXPECT_EQ(std::filesystem::file_size(directory.path("log.1")), 16U * 1024 * 1024);
    EXPECT_EQ(std::filesystem::file_size(directory.path("log")), short_line);
}

TEST_F(LogFile, OfSizeZeroIsNeverRenamed)
{
    directory.write("log", "");
    std::filesystem::resize_file(directory.path("log"), 17 * 1024 * 1024);
    common_logger_set("file.maxsize", "0");
    lines(2);
    EXPECT_FALSE(exists("log.1"));
}

TEST_F(LogFile, ASizeThatIsNoNumberChangesNothing)
{
    common_logger_set("file.maxsize", "1");
    for (const char *value : {"", "x", "-1", "10k", "99999999999999999999999"}) {
        common_logger_set("file.maxsize", value);
    }
    lines(2);
    EXPECT_TRUE(exists("log.1"));
}

TEST_F(LogFile, TheNextConfigurationHasTheDefaultSizeAgain)
{
    common_logger_set("file.maxsize", "1");
    common_logger_configure_from_string("file=yes");
    lines(2);
    EXPECT_FALSE(exists("log.1"));
}

TEST_F(LogFile, ThatCannotBeRenamedIsEmptiedAndSaysSo)
{
    std::filesystem::create_directories(directory.path("log.1/in the way"));
    common_logger_set("file.maxsize", std::to_string(2 * short_line).c_str());
    lines(3);
    EXPECT_THAT(directory.read("log"),
                MatchesRegex("log file cannot be renamed, so it was emptied: error [0-9]+\n"
                             "[^\n]* main - c\n"));
}

TEST_F(LogFile, IsReadableForItsOwnerAndGroupOnly)
{
    const mode_t mask = umask(022);
    lines(1);
    umask(mask);
    EXPECT_EQ(std::filesystem::status(directory.path("log")).permissions(),
              std::filesystem::perms{0640});
}

std::string stderr_of(void (*tell)())
{
    testing::internal::CaptureStderr();
    tell();
    return testing::internal::GetCapturedStderr();
}

void tell()
{
    LOG_REASON(LOG_LEVEL_ERROR, "why %s", "it\nends");
}

TEST_F(LoggerOutput, AReasonGoesToStandardErrorWhileTheLogIsOff)
{
    EXPECT_THAT(stderr_of(tell), MatchesRegex("20[^\n]* ERROR main - why it ends\n"));
}

TEST_F(LoggerOutput, AReasonGoesToStandardErrorWhenItsLevelIsMuted)
{
    common_logger_configure_from_string("enabled=yes:stdout=yes:level=nothing");
    EXPECT_THAT(stderr_of(tell), HasSubstr("ERROR main - why it ends\n"));
}

TEST_F(LoggerOutput, AReasonGoesToStandardErrorWithoutAnyOutput)
{
    common_logger_configure_from_string("enabled=yes");
    EXPECT_THAT(stderr_of(tell), HasSubstr("ERROR main - why it ends\n"));
}

TEST_F(LoggerOutput, AReasonGoesToStandardErrorWhenItsFileCannotBeWritten)
{
    common_logger_configure_from_string("file=yes:file.name=/nowhere/log");
    EXPECT_THAT(stderr_of(tell), MatchesRegex("20[^\n]* ERROR main - why it ends\n"));
}

TEST_F(LoggerOutput, AReasonThatAnOutputHasDoesNotGoToStandardError)
{
    common_logger_configure_from_string("syslog=yes");
    EXPECT_EQ(stderr_of(tell), "");
    EXPECT_EQ(recorded_syslog.entries.size(), 1U);
    common_logger_configure_from_string("file=yes");
    common_logger_set("file.name", directory.path("log").c_str());
    EXPECT_EQ(stderr_of(tell), "");
    EXPECT_THAT(directory.read("log"), HasSubstr("ERROR main - why it ends\n"));
}

TEST_F(LoggerOutput, AFileNameIsCutTo255Characters)
{
    const std::string folder = directory.path("");
    const std::string name(255 - folder.size(), 'n');
    common_logger_configure_from_string("file=yes");
    common_logger_set("file.name", (folder + name + "cut").c_str());
    LOG_ERROR("x");
    EXPECT_THAT(directory.read(name), HasSubstr("ERROR main - x\n"));
}

TEST_F(LoggerOutput, ALineAllocatesNothing)
{
    common_logger_configure_from_string(
        "enabled=yes:syslog=no:category.b=trace:category.main=trace");
    const int before = allocations;
    LOG_ERROR("%s", "a line");
    EXPECT_EQ(allocations, before);
}

TEST_F(LoggerOutput, SyslogFromAFileIsOpenedLastWithTheIdentOfALaterPair)
{
    // Pairs come in reverse line order, so "syslog" is set before "syslog.ident".
    const conffile_ptr file = conffile_parse(
        directory.write("f", "logger.syslog.ident=late\nlogger.syslog=yes\n").c_str());
    common_logger_configure_from_file(file.get());
    EXPECT_TRUE(recorded_syslog.open);
    EXPECT_EQ(recorded_syslog.ident, "late");
}

} // namespace
