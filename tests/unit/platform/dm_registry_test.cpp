#include <dm.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "handles/cjson.h"
#include "store_directory.h"

namespace {

class Registry : public testing::Test {
  protected:
    Registry()
    {
        setenv("VELM_DM_REGISTRY", path.c_str(), 1);
    }
    ~Registry() override
    {
        unsetenv("VELM_DM_REGISTRY");
    }

    static int add(int pid, std::vector<std::string> arguments, int flags = 0)
    {
        std::vector<char *> argv;
        for (std::string &argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        return dm_register_app_restart_info(pid, static_cast<int>(arguments.size()), argv.data(),
                                            flags);
    }

    store_directory directory;
    std::string path = directory.file("run/restart.jsonl");
};

TEST_F(Registry, HoldsOneLineARegistrationInItsOrder)
{
    ASSERT_EQ(add(4711, {"/usr/sbin/velmd", "-c", "/etc/velmd.conf"}), 0);
    ASSERT_EQ(add(4712, {"velmd"}, 3), 0);
    EXPECT_EQ(bytes_of(path),
              "{\"pid\": 4711, \"argv\": [\"/usr/sbin/velmd\", \"-c\", \"/etc/velmd.conf\"], "
              "\"flags\": 0}\n"
              "{\"pid\": 4712, \"argv\": [\"velmd\"], \"flags\": 3}\n");
}

TEST_F(Registry, TakesAnEmptyArgumentList)
{
    ASSERT_EQ(dm_register_app_restart_info(1, 0, nullptr, 0), 0);
    EXPECT_EQ(bytes_of(path), "{\"pid\": 1, \"argv\": [], \"flags\": 0}\n");
}

TEST_F(Registry, StopsAtTheNullThatEndsTheArguments)
{
    char name[] = "velmd";
    char *argv[] = {name, nullptr, nullptr};
    ASSERT_EQ(dm_register_app_restart_info(1, 3, argv, 0), 0);
    EXPECT_EQ(bytes_of(path), "{\"pid\": 1, \"argv\": [\"velmd\"], \"flags\": 0}\n");
}

TEST_F(Registry, RefusesArgumentsThatCannotBe)
{
    EXPECT_NE(dm_register_app_restart_info(1, -1, nullptr, 0), 0);
    EXPECT_NE(dm_register_app_restart_info(1, 1, nullptr, 0), 0);
}

struct argument_case {
    const char *title;
    std::string argument, json; // as it stands in the line
    std::string read;           // as a JSON parser reads it
};
class Argument : public Registry, public testing::WithParamInterface<argument_case> {};
TEST_P(Argument, IsAJsonString)
{
    ASSERT_EQ(add(1, {GetParam().argument}), 0);
    const std::string line = bytes_of(path);
    EXPECT_EQ(line, "{\"pid\": 1, \"argv\": [\"" + GetParam().json + "\"], \"flags\": 0}\n");
    const json_ptr parsed{cJSON_Parse(line.c_str())};
    const cJSON *const first = cJSON_GetArrayItem(cJSON_GetObjectItem(parsed.get(), "argv"), 0);
    ASSERT_TRUE(cJSON_IsString(first));
    EXPECT_EQ(first->valuestring, GetParam().read);
}

const std::string replacement = "\xef\xbf\xbd";

INSTANTIATE_TEST_SUITE_P(
    Texts, Argument,
    testing::Values(
        argument_case{"Empty", "", "", ""}, argument_case{"Quote", "a\"b", "a\\\"b", "a\"b"},
        argument_case{"Backslash", "a\\b", "a\\\\b", "a\\b"},
        argument_case{"Newline", "a\nb", "a\\u000ab", "a\nb"},
        argument_case{"ControlOne", "\x01", "\\u0001", "\x01"},
        argument_case{"LastControl", "\x1f", "\\u001f", "\x1f"},
        argument_case{"Blank", " ", " ", " "}, argument_case{"Delete", "\x7f", "\\u007f", "\x7f"},
        argument_case{"TwoBytes", "\xc3\xa4", "\xc3\xa4", "\xc3\xa4"},
        argument_case{"ThreeBytes", "\xe2\x82\xac", "\xe2\x82\xac", "\xe2\x82\xac"},
        argument_case{"FourBytes", "\xf0\x9f\x93\xb1", "\xf0\x9f\x93\xb1", "\xf0\x9f\x93\xb1"},
        argument_case{"LoneContinuation", "a\x80z", "a\\ufffdz", "a" + replacement + "z"},
        argument_case{"Overlong", "\xc0\xaf", "\\ufffd\\ufffd", replacement + replacement},
        argument_case{"OverlongThree", "\xe0\x9f\xbf", "\\ufffd\\ufffd\\ufffd",
                      replacement + replacement + replacement},
        argument_case{"Surrogate", "\xed\xa0\x80", "\\ufffd\\ufffd\\ufffd",
                      replacement + replacement + replacement},
        argument_case{"BeyondTheLast", "\xf4\x90\x80\x80", "\\ufffd\\ufffd\\ufffd\\ufffd",
                      replacement + replacement + replacement + replacement},
        argument_case{"CutSequence", "\xe2\x82", "\\ufffd\\ufffd", replacement + replacement},
        argument_case{"CutBeforeAscii", "\xf0\x9f\"", "\\ufffd\\ufffd\\\"",
                      replacement + replacement + "\""}),
    [](const auto &row) { return std::string{row.param.title}; });

TEST_F(Registry, ALineThatAFullDiskCutSpoilsNoLaterOne)
{
    ASSERT_EQ(add(1, {"a"}), 0);
    put_bytes(path, "{\"pid\": 1, \"ar");
    ASSERT_EQ(add(2, {"b"}), 0);
    ASSERT_EQ(add(3, {"c"}), 0);
    EXPECT_EQ(bytes_of(path), "{\"pid\": 1, \"ar\n"
                              "{\"pid\": 2, \"argv\": [\"b\"], \"flags\": 0}\n"
                              "{\"pid\": 3, \"argv\": [\"c\"], \"flags\": 0}\n");
}

TEST_F(Registry, FailureIsToldAndSaid)
{
    setenv("VELM_DM_REGISTRY", "/dev/full", 1);
    testing::internal::CaptureStderr();
    EXPECT_NE(add(1, {"a"}), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "dm: cannot register in /dev/full: No space left on device\n");
}

TEST_F(Registry, LinesOfProcessesThatRegisterAtOnceNeverMix)
{
    constexpr int processes = 4;
    constexpr int lines_each = 50;
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) {
        children.push_back(start_process([i] {
            int failed = 0;
            for (int line = 0; line < lines_each; ++line) {
                failed += add(i, {std::string(2000, static_cast<char>('a' + i))});
            }
            return failed;
        }));
    }
    for (const pid_t child : children) {
        ASSERT_EQ(wait_for(child), 0);
    }
    std::ifstream in{path};
    int lines = 0;
    for (std::string line; std::getline(in, line); ++lines) {
        const json_ptr parsed{cJSON_Parse(line.c_str())};
        ASSERT_NE(parsed, nullptr) << line;
    }
    EXPECT_EQ(lines, processes * lines_each);
}

} // namespace
