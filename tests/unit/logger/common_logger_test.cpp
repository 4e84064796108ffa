#include "logger/common_logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "conffile/conffile.h"
#include "fakes/temporary_directory.h"

namespace {

using testing::ElementsAre;

const bool enabled_at_start = common_logger_is_enabled();
constexpr char log_category[] = "main";

/// What an observer was told.
struct observed_record {
    int reconfigured = 0, disabled = 0;
    std::vector<std::string> lines, keys;
};
observed_record observed;

void note_reconfigured()
{
    ++observed.reconfigured;
}
void note_disabled()
{
    ++observed.disabled;
}
void note_line(const char *category, int level, const char *text, const char *file, int line)
{
    observed.lines.push_back(std::string{category} + '|' + std::to_string(level) + '|' +
                             (text + 24) + '|' + file + '|' + std::to_string(line));
}
void note_key(const char *key, const char *value)
{
    observed.keys.push_back(std::string{key} + '=' + value);
}
constexpr common_logger_observer full_observer{note_reconfigured, note_disabled, note_line,
                                               note_key};

class Logger : public testing::Test {
  protected:
    Logger()
    {
        reset_all();
    }
    ~Logger() override
    {
        reset_all();
    }

    static void reset_all()
    {
        common_logger_set_observer(nullptr);
        common_logger_configure_from_string(
            "level=debug:stdout=no:syslog=no:file=no:lineandfile=no:syslog.ident=velmd:enabled=no");
        observed = {};
    }

    static void log_at_every_level(const char *category)
    {
        constexpr const char *letters[] = {"t", "d", "i", "w", "e"};
        for (int level = LOG_LEVEL_TRACE; level <= LOG_LEVEL_ERROR; ++level) {
            common_logger_log(category, level, "f", 1, "%s", letters[level]);
        }
    }

    /// The letters of the levels that come through, in order.
    static std::string passed_levels(const char *category = "main")
    {
        std::string letters;
        common_logger_set_observer(&full_observer);
        observed.lines.clear();
        log_at_every_level(category);
        common_logger_set_observer(nullptr);
        for (const std::string &line : observed.lines) {
            letters += line[line.find(" - ") + 3];
        }
        return letters;
    }
};

TEST_F(Logger, IsDisabledUntilConfigured)
{
    EXPECT_FALSE(enabled_at_start);
}

TEST_F(Logger, EvaluatesNoArgumentWhileDisabled)
{
    int evaluated = 0;
    LOG_ERROR("%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
}

TEST_F(Logger, StaysSilentUnderTheDefaultConfiguration)
{
    common_logger_configure_from_string(
        "enabled=no:level=error:syslog=no:syslog.ident=velmd:stdout=no");
    EXPECT_EQ(passed_levels(), "");
}

struct threshold_case {
    const char *name, *level, *passed;
};
class LoggerLevel : public Logger, public testing::WithParamInterface<threshold_case> {};

TEST_P(LoggerLevel, LetsItselfAndTheHigherOnesThrough)
{
    common_logger_configure_from_string("enabled=yes");
    common_logger_set("level", GetParam().level);
    EXPECT_EQ(passed_levels(), GetParam().passed);
}

INSTANTIATE_TEST_SUITE_P(Names, LoggerLevel,
                         testing::Values(threshold_case{"Trace", "TRACE", "tdiwe"},
                                         threshold_case{"Debug", "DEBUG", "diwe"},
                                         threshold_case{"Info", "INFO", "iwe"},
                                         threshold_case{"Warn", "WARN", "we"},
                                         threshold_case{"Error", "ERROR", "e"},
                                         threshold_case{"MixedCaseSetsDebug", "Debug", "diwe"},
                                         threshold_case{"LowerCase", "trace", "tdiwe"},
                                         threshold_case{"SyslogMutes", "SYSLOG", ""},
                                         threshold_case{"AnUnknownWordMutes", "verbose", ""},
                                         threshold_case{"ANumberMutes", "0", ""},
                                         threshold_case{"APrefixMutes", "DEB", ""},
                                         threshold_case{"NothingMutes", "", ""}),
                         [](const auto &row) { return std::string{row.param.name}; });

struct boolean_case {
    const char *name, *value;
    bool is_true;
};
class LoggerBoolean : public Logger, public testing::WithParamInterface<boolean_case> {};

TEST_P(LoggerBoolean, IsTrueForTrueAndYesOnly)
{
    common_logger_set("enabled", GetParam().value);
    EXPECT_EQ(common_logger_is_enabled(), GetParam().is_true);
    common_logger_set("enabled", "no");
    common_logger_set("stdout", GetParam().value);
    EXPECT_EQ(common_logger_is_enabled(), GetParam().is_true);
}

INSTANTIATE_TEST_SUITE_P(
    Values, LoggerBoolean,
    testing::Values(boolean_case{"True", "true", true}, boolean_case{"Yes", "yes", true},
                    boolean_case{"One", "1", false}, boolean_case{"UpperCase", "YES", false},
                    boolean_case{"Longer", "yess", false}, boolean_case{"Empty", "", false}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST_F(Logger, ACategoryAtErrorDropsOnlyItsOwnLowerLines)
{
    common_logger_configure_from_string("enabled=yes:level=trace:category.velm_ssdp_server=error");
    EXPECT_EQ(passed_levels("velm_ssdp_server"), "e");
    EXPECT_EQ(passed_levels("main"), "tdiwe");
}

TEST_F(Logger, ACategoryMayTellMoreThanTheRest)
{
    common_logger_configure_from_string("enabled=yes:level=error:category.main=trace");
    EXPECT_EQ(passed_levels(), "tdiwe");
}

TEST_F(Logger, ACategoryIsComparedWholeAndByCase)
{
    common_logger_configure_from_string(
        "enabled=yes:level=trace:category.mai=error:category.mains=error:category.MAIN=error");
    EXPECT_EQ(passed_levels(), "tdiwe");
}

TEST_F(Logger, OfACategoryGivenTwiceTheLastSetCounts)
{
    common_logger_configure_from_string("enabled=yes:category.main=error:category.main=warn");
    EXPECT_EQ(passed_levels(), "we");
}

TEST_F(Logger, CategoriesKeepTheirThresholdsInAnyOrderOfUse)
{
    common_logger_configure_from_string(
        "enabled=yes:level=trace:category.main=error:category.b=warn:category.c=info");
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(passed_levels("main"), "e");
        EXPECT_EQ(passed_levels("b"), "we");
        EXPECT_EQ(passed_levels("c"), "iwe");
        EXPECT_EQ(passed_levels("d"), "tdiwe");
    }
}

TEST_F(Logger, ACategoryWithAnUnknownLevelIsMuted)
{
    common_logger_configure_from_string("enabled=yes:level=trace:category.main=loud");
    EXPECT_EQ(passed_levels(), "");
}

TEST_F(Logger, ConfiguringAgainForgetsCategoriesAndKeepsTheLevel)
{
    common_logger_configure_from_string("enabled=yes:level=warn:category.main=trace");
    common_logger_configure_from_string("enabled=yes");
    EXPECT_EQ(passed_levels(), "we");
}

TEST_F(Logger, IgnoresUnknownKeysItemsWithoutEqualsSignAndNulls)
{
    common_logger_configure_from_string("enabled=yes::level:Level=trace:x=y:level =trace");
    common_logger_set(nullptr, "yes");
    common_logger_set("level", nullptr);
    EXPECT_EQ(passed_levels(), "diwe");
    common_logger_configure_from_string(nullptr);
    EXPECT_FALSE(common_logger_is_enabled());
}

class LoggerFile : public Logger {
  protected:
    void configure(std::string_view content) const
    {
        const conffile_ptr file = conffile_parse(directory.write("f", content).c_str());
        ASSERT_NE(file, nullptr);
        common_logger_configure_from_file(file.get());
    }
    const temporary_directory directory;
};

TEST_F(LoggerFile, AppliesTheKeysWithItsPrefixOnly)
{
    configure("logger.enabled=yes\nlogger.level=warn\nlevel=trace\nxlogger.level=error\n");
    EXPECT_EQ(passed_levels(), "we");
}

TEST_F(LoggerFile, OfAKeyGivenTwiceTheEarliestLineWins)
{
    configure("logger.level=warn\nlogger.level=error\nlogger.enabled=yes\n");
    EXPECT_EQ(passed_levels(), "we");
}

TEST_F(LoggerFile, ForgetsWhatWasConfiguredBefore)
{
    common_logger_configure_from_string("enabled=yes:category.main=error");
    configure("logger.enabled=yes\n");
    EXPECT_EQ(passed_levels(), "diwe");
}

TEST_F(LoggerFile, OfACategoryGivenTwiceTheEarliestLineWins)
{
    configure("logger.category.main=warn\nlogger.category.main=error\nlogger.enabled=yes\n");
    EXPECT_EQ(passed_levels(), "we");
}

TEST_F(Logger, TheObserverIsToldOfEverything)
{
    common_logger_set_observer(&full_observer);
    common_logger_configure_from_string("enabled=yes:level=info");
    common_logger_log("main", LOG_LEVEL_INFO, "src/main.cpp", 5, "hello");
    EXPECT_EQ(observed.reconfigured, 1);
    EXPECT_EQ(observed.disabled, 0);
    EXPECT_THAT(observed.keys, ElementsAre("enabled=yes", "level=info"));
    EXPECT_THAT(observed.lines, ElementsAre("main|2| INFO main - hello\n|src/main.cpp|5"));
    common_logger_set("enabled", "no");
    EXPECT_EQ(observed.disabled, 1);
}

TEST_F(Logger, NullFunctionsOfTheObserverAreSkipped)
{
    constexpr common_logger_observer empty{nullptr, nullptr, nullptr, nullptr};
    common_logger_set_observer(&empty);
    common_logger_configure_from_string("enabled=yes");
    LOG_ERROR("x");
    common_logger_set("enabled", "no");
    EXPECT_FALSE(common_logger_is_enabled());
}

} // namespace
