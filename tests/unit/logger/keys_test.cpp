#include "logger/keys.h"

#include <gtest/gtest.h>

#include "logger/common_logger.h"

namespace {

TEST(LoggerKeys, AreFoundByTheirWholeName)
{
    EXPECT_EQ(logger_key_of("enabled"), logger_key::enabled);
    EXPECT_EQ(logger_key_of("file"), logger_key::to_file);
    EXPECT_EQ(logger_key_of("file.name"), logger_key::file_name);
    EXPECT_EQ(logger_key_of("syslog.ident"), logger_key::syslog_ident);
    EXPECT_EQ(logger_key_of("category.x"), logger_key::category);
    for (const char *other : {"", "fil", "file.names", "File", "category"}) {
        EXPECT_EQ(logger_key_of(other), logger_key::unknown) << other;
    }
}

TEST(LoggerKeys, OfTheListAreAllKnown)
{
    for (const char *key : logger_keys()) {
        EXPECT_NE(logger_key_of(key), logger_key::unknown) << key;
    }
}

TEST(LoggerKeys, ATruthIsYesOrTrue)
{
    EXPECT_EQ(logger_truth("yes"), true);
    EXPECT_EQ(logger_truth("true"), true);
    for (const char *no : {"no", "false", "0"}) {
        EXPECT_EQ(logger_truth(no), false) << no;
    }
    for (const char *other : {"", "1", "Yes", "on"}) {
        EXPECT_EQ(logger_truth(other), std::nullopt) << other;
    }
}

TEST(LoggerKeys, ALevelHasItsNameInAnyCase)
{
    EXPECT_EQ(logger_level("Trace"), LOG_LEVEL_TRACE);
    EXPECT_EQ(logger_level("ERROR"), LOG_LEVEL_ERROR);
    EXPECT_EQ(logger_level("syslog"), LOG_LEVEL_MUTE);
    EXPECT_EQ(logger_level("warning"), std::nullopt);
    EXPECT_EQ(logger_level(""), std::nullopt);
    EXPECT_STREQ(logger_level_name(-1), "TRACE");
    EXPECT_STREQ(logger_level_name(3), "WARN");
    EXPECT_STREQ(logger_level_name(99), "SYSLOG");
}

TEST(LoggerKeys, ASizeHasDigitsOnly)
{
    EXPECT_EQ(logger_size("0"), 0U);
    EXPECT_EQ(logger_size("18446744073709551615"), 18446744073709551615U);
    for (const char *other : {"", "-1", "1k", " 1", "18446744073709551616"}) {
        EXPECT_EQ(logger_size(other), std::nullopt) << other;
    }
}

} // namespace
