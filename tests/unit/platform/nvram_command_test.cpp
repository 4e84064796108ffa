#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "handles/fd.h"
#include "store_directory.h"

namespace {

struct outcome {
    int status = -1;
    std::string out, err;
};

/// The command beside the test programs: build/<preset>/bin/nvram.
std::string command_path()
{
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() /
           "bin/nvram";
}

class Command : public testing::Test {
  protected:
    [[nodiscard]] outcome run(std::vector<std::string> arguments) const
    {
        const std::string out = directory.parent() + "/out";
        outcome result = run_into(std::move(arguments), out);
        result.out = bytes_of(out);
        return result;
    }

    /// With standard output to `out`, which may be a device: it is not read here.
    [[nodiscard]] outcome run_into(std::vector<std::string> arguments, const std::string &out) const
    {
        const std::string err = directory.parent() + "/err";
        arguments.insert(arguments.begin(), command_path());
        outcome result;
        result.status = in_process([&] {
            setenv("VELM_NVRAM", directory.path().c_str(), 1);
            dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
            dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
            std::vector<char *> argv;
            for (std::string &argument : arguments) {
                argv.push_back(argument.data());
            }
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            return 127;
        });
        result.err = bytes_of(err);
        return result;
    }

    store_directory directory;
};

constexpr char usage[] = "usage: nvram get NAME\n"
                         "       nvram set NAME=VALUE ...\n"
                         "       nvram unset NAME ...\n"
                         "       nvram show\n"
                         "       nvram commit\n"
                         "       nvram revert\n";

TEST_F(Command, GetPrintsTheValueAndANewline)
{
    EXPECT_EQ(run({"set", "a=1"}).status, 0);
    const outcome got = run({"get", "a"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "1\n");
    EXPECT_EQ(got.err, "");
}

TEST_F(Command, GetOfAnAbsentSettingPrintsNothingAndExitsWithOne)
{
    const outcome got = run({"get", "absent"});
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(got.out, "");
    EXPECT_EQ(got.err, "");
}

TEST_F(Command, GetPrintsEveryByteAsItIs)
{
    const std::string value = "x\nzelkad_pairing_0_status=Valid\t\\ \x01\xff \xf0\x9f\x93\xb1\"'";
    ASSERT_EQ(run({"set", "name=" + value}).status, 0);
    EXPECT_EQ(run({"get", "name"}).out, value + "\n");
    EXPECT_EQ(run({"get", "zelkad_pairing_0_status"}).status, 1);
}

TEST_F(Command, SetTakesSeveralAndSplitsAtTheFirstEqualsSign)
{
    ASSERT_EQ(run({"set", "a=1=2", "b="}).status, 0);
    EXPECT_EQ(run({"show"}).out, "a=1=2\nb=\n");
}

TEST_F(Command, SetSetsAllOrNothing)
{
    EXPECT_EQ(run({"set", "a=1", "no assignment"}).status, 2);
    EXPECT_EQ(run({"set", "a=1", "=2"}).status, 2);
    const outcome too_long = run({"set", "a=1", "b=" + std::string(64 * 1024 + 1, 'v')});
    EXPECT_EQ(too_long.status, 3);
    EXPECT_EQ(too_long.err, "nvram: cannot set: a value holds at most 65536 bytes\n");
    EXPECT_EQ(run({"show"}).out, "");
}

TEST_F(Command, UnsetRemovesAndMindsNoAbsentOne)
{
    ASSERT_EQ(run({"set", "a=1", "b=2"}).status, 0);
    EXPECT_EQ(run({"unset", "a", "absent"}).status, 0);
    EXPECT_EQ(run({"show"}).out, "b=2\n");
}

TEST_F(Command, ShowSortsByBytesAndKeepsEachSettingOnItsLine)
{
    ASSERT_EQ(run({"set", "b=x\nforged=1", "a=\\n", "B=\t\x1b\x7f", "a.=\xf0\x9f\x93\xb1"}).status,
              0);
    EXPECT_EQ(run({"show"}).out, "B=\\011\\033\\177\n"
                                 "a=\\\\n\n"
                                 "a.=\xf0\x9f\x93\xb1\n"
                                 "b=x\\nforged=1\n");
}

TEST_F(Command, RevertDropsWhatWasNotCommitted)
{
    ASSERT_EQ(run({"set", "a=1"}).status, 0);
    ASSERT_EQ(run({"commit"}).status, 0);
    ASSERT_EQ(run({"set", "a=2"}).status, 0);
    EXPECT_EQ(run({"revert"}).status, 0);
    EXPECT_EQ(run({"get", "a"}).out, "1\n");
}

TEST_F(Command, DamageIsReportedAndTheLastGoodCopyServes)
{
    ASSERT_EQ(run({"set", "a=1"}).status, 0);
    ASSERT_EQ(run({"commit"}).status, 0);
    put_bytes(directory.file("live"), "damaged");
    const outcome got = run({"get", "a"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "1\n");
    EXPECT_EQ(got.err,
              "nvram: " + directory.path() + "/live is damaged: the last good commit is used\n");
}

TEST_F(Command, WithNoGoodCopyLeftExitsWithThree)
{
    ASSERT_EQ(run({"set", "a=1"}).status, 0);
    ASSERT_EQ(run({"commit"}).status, 0);
    put_bytes(directory.file("live"), "damaged");
    put_bytes(directory.file("committed.0"), "damaged");
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"get", "a"}, {"show"}, {"commit"}, {"revert"}}) {
        const outcome got = run(arguments);
        EXPECT_EQ(got.status, 3) << arguments[0];
        EXPECT_EQ(got.out, "");
        EXPECT_TRUE(got.err.ends_with("nvram: cannot " + arguments[0] +
                                      ": the store is damaged, and no good copy is left\n"))
            << got.err;
    }
}

TEST_F(Command, AStoreThatCannotBeReadExitsWithThree)
{
    put_bytes(directory.path(), "a file in the place of the directory");
    EXPECT_EQ(run({"get", "a"}).status, 3);
    EXPECT_EQ(run({"show"}).status, 3);
    EXPECT_EQ(run({"set", "a=1"}).status, 3);
    EXPECT_EQ(run({"commit"}).err, "nvram: cannot commit: Not a directory\n");
}

TEST_F(Command, OutputThatCannotBeWrittenExitsWithThree)
{
    ASSERT_EQ(run({"set", "a=1"}).status, 0);
    EXPECT_EQ(run_into({"get", "a"}, "/dev/full").status, 3);
    EXPECT_EQ(run_into({"show"}, "/dev/full").status, 3);
}

class Misuse : public Command, public testing::WithParamInterface<std::vector<std::string>> {};
TEST_P(Misuse, PrintsTheUsageToStandardErrorAndExitsWithTwo)
{
    const outcome got = run(GetParam());
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(got.out, "");
    EXPECT_TRUE(got.err.ends_with(usage)) << got.err;
    EXPECT_FALSE(std::filesystem::exists(directory.file("live")));
}
using words = std::vector<std::string>;
INSTANTIATE_TEST_SUITE_P(Words, Misuse,
                         testing::Values(words{}, words{"help"}, words{""}, words{"get"},
                                         words{"get", "a", "b"}, words{"set"}, words{"set", "a"},
                                         words{"set", "=1"}, words{"set", "a\n=1"}, words{"unset"},
                                         words{"unset", ""}, words{"unset", "a=b"},
                                         words{"show", "a"}, words{"commit", "a"},
                                         words{"revert", "a"}));

} // namespace
