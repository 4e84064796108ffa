#include "check/values.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "found.h"

namespace {

std::vector<std::string> found_in(const std::string &key, const std::string &value)
{
    check_findings findings;
    const auto rows = config_file_settings();
    const auto row = std::ranges::find(rows, key, &config_setting::key);
    if (row != rows.end()) {
        check_value({"F", 1}, *row, value, &findings);
    } else {
        check_logger_value({"F", 1}, key, value, &findings);
    }
    return found(std::move(findings));
}

struct value_case {
    const char *name;
    const char *key; // those of the logger without "logger."
    std::string good, bad, what;
};
class Value : public testing::TestWithParam<value_case> {};

TEST_P(Value, FitsOrIsTold)
{
    const value_case &row = GetParam();
    EXPECT_THAT(found_in(row.key, row.good), testing::IsEmpty()) << row.good;
    EXPECT_THAT(found_in(row.key, row.bad), testing::ElementsAre("F:1: " + row.what)) << row.bad;
}

constexpr char truth[] = " is neither yes nor no: it counts as no";
constexpr char number[] = " is no number from 0 to 65535";
constexpr char level[] = " is no level (trace, debug, info, warn, error): nothing is logged";

INSTANTIATE_TEST_SUITE_P(
    Keys, Value,
    testing::Values(
        value_case{"Truth", "process.daemonize", "1", "TRUE",
                   "process.daemonize: \"TRUE\"" + std::string{truth}},
        value_case{"Falsehood", "process.daemonize", "false", "off",
                   "process.daemonize: \"off\"" + std::string{truth}},
        value_case{"NoTruth", "accounts.shadow", "no", "",
                   "accounts.shadow: \"\"" + std::string{truth}},
        value_case{"LargestNumber", "ssdp.server.port", "65535", "65536",
                   "ssdp.server.port: \"65536\"" + std::string{number}},
        value_case{"SmallestNumber", "ssdp.server.port", "0", "-1",
                   "ssdp.server.port: \"-1\"" + std::string{number}},
        value_case{"HugeNumber", "pairings.limit", "1", "99999999999999999999",
                   "pairings.limit: \"99999999999999999999\"" + std::string{number}},
        value_case{"Digits", "http.server.port", "8443", "84x3",
                   "http.server.port: \"84x3\"" + std::string{number}},
        value_case{"LongestPath", "process.pidfile", std::string(255, '/'), std::string(256, '/'),
                   "process.pidfile: 256 characters: it is cut to 255"},
        value_case{"LongestWord", "vendor.id", std::string(49, 'v'), std::string(50, 'v'),
                   "vendor.id: 50 characters: it is cut to 49"},
        value_case{"LongestSocket", "location.policy.ipc.sock", std::string(107, '/'),
                   std::string(108, '/'),
                   "location.policy.ipc.sock: 108 characters: a socket's path has at most 107"},
        value_case{"Utf8", "vendor.id", "\xc3\xa4", "\xe4", "vendor.id: \"?\" is no UTF-8"},
        value_case{
            "Method", "app.android.integrity.method", "REMOTE", "remot",
            "warning: app.android.integrity.method: \"remot\" is neither remote nor local: it "
            "counts as local"},
        value_case{"AppId", "app.ios.appid", "T.id", "id",
                   "warning: app.ios.appid: \"id\" is no team id, point and bundle id"},
        value_case{"NoServer", "http.server.port", "1", "0",
                   "warning: http.server.port: with 0 there is no HTTP server"},
        value_case{"NoPairings", "pairings.limit", "1", "0",
                   "warning: pairings.limit: with 0 no phone can be paired"},
        value_case{"LoggersTruth", "file", "yes", "1", "logger.file: \"1\"" + std::string{truth}},
        value_case{"Level", "level", "Warn", "warning",
                   "logger.level: \"warning\"" + std::string{level}},
        value_case{"LevelOfCategory", "category.velm_ipc", "info", "all",
                   "logger.category.velm_ipc: \"all\"" + std::string{level}},
        value_case{"Size", "file.maxsize", "0", "1k",
                   "logger.file.maxsize: \"1k\" is no number: it counts as not given"},
        value_case{"FileName", "file.name", std::string(255, 'f'), std::string(256, 'f'),
                   "logger.file.name: 256 characters: it is cut to 255"}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST(Category, OfThatNameMustExist)
{
    EXPECT_THAT(found_in("category.IAV", "info"), testing::IsEmpty());
    EXPECT_THAT(
        found_in("category.velm_icp", "info"),
        testing::ElementsAre(
            "F:1: logger.category: unknown category \"velm_icp\": did you mean \"velm_ipc\"?"));
    EXPECT_THAT(found_in("category.", "info"),
                testing::ElementsAre("F:1: logger.category: unknown category \"\""));
}

} // namespace
