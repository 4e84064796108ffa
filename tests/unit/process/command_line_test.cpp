#include "process/command_line.h"
#include "process/version.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

/// Parses as a process that has just started would; ::optind counts across calls.
velm_command_line parse(std::vector<std::string> arguments)
{
    std::vector<char *> argv;
    for (std::string &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    optind = 0; // glibc: start over
    return velm_command_line_parse(static_cast<int>(arguments.size()), argv.data());
}

/// Runs the parse in a child whose standard output is shown on standard error, where the death
/// test looks.
velm_command_line parse_loudly(const std::vector<std::string> &arguments)
{
    dup2(STDERR_FILENO, STDOUT_FILENO);
    return parse(arguments);
}

TEST(CommandLine, WithoutOptionsNothingIsGiven)
{
    const velm_command_line given = parse({"velmd"});
    EXPECT_FALSE(given.config_path || given.lan_ip_address || given.lan_name ||
                 given.serial_number || given.mac_address || given.bssids);
}

TEST(CommandLine, TakesEveryOption)
{
    const velm_command_line given = parse({"velmd", "-c", "/a/b", "-i", "10.0.0.1", "-n", "br1",
                                           "-s", "S", "-m", "00:01", "-b", "aa,bb"});
    EXPECT_EQ(given.config_path, "/a/b");
    EXPECT_EQ(given.lan_ip_address, "10.0.0.1");
    EXPECT_EQ(given.lan_name, "br1");
    EXPECT_EQ(given.serial_number, "S");
    EXPECT_EQ(given.mac_address, "00:01");
    EXPECT_EQ(given.bssids, "aa,bb");
}

TEST(CommandLine, ARepeatedOptionReplacesTheEarlierValue)
{
    EXPECT_EQ(parse({"velmd", "-s", "one", "-s", "two"}).serial_number, "two");
}

TEST(CommandLine, ARelativeConfigurationPathBecomesAbsoluteAndAnEmptyOneStays)
{
    char *directory = getcwd(nullptr, 0);
    EXPECT_EQ(parse({"velmd", "-c", "x.conf"}).config_path, std::string{directory} + "/x.conf");
    std::free(directory);
    EXPECT_EQ(parse({"velmd", "-c", ""}).config_path, "");
}

using arguments = std::vector<std::string>;

std::string here()
{
    return std::filesystem::current_path().string();
}

TEST(CommandLine, TheArgumentsForARestartHoldAbsolutePaths)
{
    const arguments apart = parse({"/sbin/velmd", "-n", "br7", "-c", "a.conf"}).restart_arguments;
    EXPECT_EQ(apart, (arguments{"/sbin/velmd", "-n", "br7", "-c", here() + "/a.conf"}));
    const arguments together =
        parse({"/sbin/velmd", "-hca.conf", "-i", "a.conf"}).restart_arguments;
    EXPECT_EQ(together, (arguments{"/sbin/velmd", "-hc" + here() + "/a.conf", "-i", "a.conf"}));
}

TEST(CommandLine, TheArgumentsForARestartAreThoseThatWereGivenWhereNothingIsRelative)
{
    const arguments given = {"/sbin/velmd", "-c", "/etc/a.conf", "-b", "1,2"};
    EXPECT_EQ(parse(given).restart_arguments, given);
    EXPECT_EQ(parse({"/sbin/velmd", "-c", ""}).restart_arguments,
              (arguments{"/sbin/velmd", "-c", ""}));
    EXPECT_EQ(parse({"/sbin/velmd"}).restart_arguments, arguments{"/sbin/velmd"});
}

TEST(CommandLine, AProgramNamedWithoutItsPathIsStartedAgainByItsPath)
{
    const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
    EXPECT_EQ(parse({"velmd"}).restart_arguments, arguments{program});
    EXPECT_EQ(parse({"./velmd"}).restart_arguments, arguments{program});
}

TEST(CommandLine, HelpAndVersionBesideAnotherOptionAreIgnored)
{
    EXPECT_EQ(parse({"velmd", "-h", "-c", "/a"}).config_path, "/a");
    EXPECT_EQ(parse({"velmd", "-v", "-c", "/a"}).config_path, "/a");
    EXPECT_FALSE(parse({"velmd", "-h", "-v"}).config_path);
}

TEST(CommandLineExit, HelpAlonePrintsTheUsage)
{
    EXPECT_EXIT((void)parse_loudly({"/sbin/velmd", "-h"}), testing::ExitedWithCode(0),
                "^Usage:\n /sbin/velmd\n /sbin/velmd -c path_to_config\n"
                " /sbin/velmd -c path_to_config -i lan_ip_address -n lan_if_name -s serial_number "
                "-m mac_address -b bssids_list\n"
                "  \\(all parameters are optional\\)\n\n /sbin/velmd -v\n /sbin/velmd -h\n$");
}

TEST(CommandLineExit, VersionAlonePrintsTheBaseNameAndTheVersion)
{
    const std::string version = std::to_string(velm_version_major) + "\\." +
                                std::to_string(velm_version_minor) + "\\." +
                                std::to_string(velm_version_patch);
    EXPECT_EXIT((void)parse_loudly({"/sbin/velmd", "-v"}), testing::ExitedWithCode(0),
                "^velmd " + version + "\n$");
}

TEST(CommandLineExit, AnUnknownOptionPrintsGetoptsWordsTheLineTheUsageAndEndsWithOne)
{
    EXPECT_EXIT((void)parse_loudly({"velmd", "-z"}), testing::ExitedWithCode(1),
                "invalid option -- 'z'\n.*unknown parameter: -\\?\n\nUsage:\n velmd\n");
}

TEST(CommandLineExit, AMissingArgumentEndsWithOne)
{
    EXPECT_EXIT((void)parse_loudly({"velmd", "-c"}), testing::ExitedWithCode(1),
                "requires an argument -- 'c'\n.*unknown parameter: -\\?\n\nUsage:");
}

TEST(CommandLineExit, HelpBesideABadOptionEndsAsABadOptionDoes)
{
    EXPECT_EXIT((void)parse_loudly({"velmd", "-h", "-z"}), testing::ExitedWithCode(1),
                "unknown parameter: -\\?\n\nUsage:");
}

TEST(CommandLine, MinusTAsksForACheckBesideTheOthers)
{
    EXPECT_FALSE(parse({"velmd", "-s", "-t"}).checks);
    const velm_command_line given = parse({"velmd", "-t", "-c", "/a"});
    EXPECT_TRUE(given.checks);
    EXPECT_EQ(given.config_path, "/a");
}

TEST(CommandLine, IsLookedThroughForACheckWithoutAWordAndCanBeParsedThen)
{
    std::vector<std::string> words{"velmd", "-z", "-c", "-t", "-ht"};
    std::vector<char *> argv;
    for (std::string &argument : words) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    testing::internal::CaptureStderr();
    optind = 0;
    EXPECT_FALSE(velm_command_line_asks_to_check(4, argv.data()));
    EXPECT_TRUE(velm_command_line_asks_to_check(5, argv.data()));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    const velm_command_line given = velm_command_line_parse(4, argv.data() + 1);
    EXPECT_EQ(given.config_path, here() + "/-t");
    EXPECT_TRUE(given.checks);
}

} // namespace
