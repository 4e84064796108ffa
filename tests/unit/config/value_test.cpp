#include "config/value.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(ConfigTruth, IsOneOfThreeWordsForEachSide)
{
    for (const char *yes : {"yes", "true", "1"}) {
        EXPECT_EQ(config_truth(yes), true) << yes;
    }
    for (const char *no : {"no", "false", "0"}) {
        EXPECT_EQ(config_truth(no), false) << no;
    }
    for (const char *other : {"", "Yes", "on", "01", "yes "}) {
        EXPECT_EQ(config_truth(other), std::nullopt) << other;
    }
}

TEST(ConfigFit, OfANumberHasBothEnds)
{
    for (const char *number : {"0", "8443", "65535", "00001"}) {
        EXPECT_EQ(config_value_fit(&velm_config::http_server_port, number), config_fit::fits)
            << number;
    }
    for (const char *number : {"-1", "65536", "99999999999999999999999"}) {
        EXPECT_EQ(config_value_fit(&velm_config::http_server_port, number),
                  config_fit::out_of_range)
            << number;
    }
    for (const char *text : {"", "x", "1x", " 1", "0x10", "1.5"}) {
        EXPECT_EQ(config_value_fit(&velm_config::http_server_port, text), config_fit::no_number)
            << text;
    }
}

TEST(ConfigFit, OfATextIsItsLength)
{
    EXPECT_EQ(config_text_max(&velm_config::vendor_id), config_word_size - 1);
    EXPECT_EQ(config_text_max(&velm_config::pid_file_path), config_path_size - 1);
    EXPECT_EQ(config_text_max(&velm_config::daemonize), 0U);
    EXPECT_EQ(config_text_max(&velm_config::http_server_port), 0U);
    EXPECT_EQ(config_value_fit(&velm_config::vendor_id, std::string(49, 'v')), config_fit::fits);
    EXPECT_EQ(config_value_fit(&velm_config::vendor_id, std::string(50, 'v')),
              config_fit::too_long);
}

TEST(ConfigFit, OfABooleanIsAKnownWord)
{
    EXPECT_EQ(config_value_fit(&velm_config::daemonize, "no"), config_fit::fits);
    EXPECT_EQ(config_value_fit(&velm_config::daemonize, "off"), config_fit::no_truth);
}

} // namespace
