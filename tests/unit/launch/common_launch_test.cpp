#include "launch/common_launch.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <utility>

#include "fakes/captured_log.h"
#include "fakes/emulated.h"
#include "fakes/no_descriptors.h"
#include "handles/fd.h"

namespace {

TEST(Launch, GivesStatusAndOutput)
{
    int status = -1;
    std::string output = "old";
    EXPECT_EQ(common_launch("echo one; echo two", &status, &output), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(output, "one\ntwo\n");
}

TEST(Launch, LeavesTheExitCodeToTheCaller)
{
    int status = 0;
    std::string output;
    EXPECT_EQ(common_launch("echo partly; exit 7", &status, &output), 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(output, "partly\n");
}

TEST(Launch, NeedsNeitherStatusNorOutput)
{
    EXPECT_EQ(common_launch("exit 0", nullptr, nullptr), 0);
}

class LaunchOutput : public testing::TestWithParam<int> {};

TEST_P(LaunchOutput, OfAnyLengthIsWhole)
{
    const std::string command = "head -c " + std::to_string(GetParam()) + " /dev/zero";
    std::string output;
    EXPECT_EQ(common_launch(command.c_str(), nullptr, &output), 0);
    EXPECT_EQ(output, std::string(static_cast<std::size_t>(GetParam()), '\0'));
}

INSTANTIATE_TEST_SUITE_P(AroundTheChunk, LaunchOutput,
                         testing::Values(0, 1, 1023, 1024, 1025, 2048, 100000));

TEST(Launch, OfNoCommandIsRefused)
{
    const captured_log log;
    int status = 5;
    std::string output = "old";
    EXPECT_EQ(common_launch(nullptr, &status, &output), -2);
    EXPECT_EQ(status, 5);
    EXPECT_EQ(output, "");
    EXPECT_TRUE(log.has("ERROR launch - Command can't be NULL"));
}

TEST(Launch, OfACommandEndedByASignalFails)
{
    const captured_log log;
    int status = 5;
    std::string output = "old";
    EXPECT_EQ(common_launch("echo lost; kill -9 $$", &status, &output), -3);
    EXPECT_EQ(status, 5);
    EXPECT_EQ(output, "");
    EXPECT_TRUE(log.has("ERROR launch - Command hasn't terminated normally - probably unexpected "
                        "signal"));
}

TEST(Launch, WithoutDescriptorsFails)
{
    const captured_log log;
    std::string output = "old";
    int result = 0;
    {
        const no_descriptors none;
        result = common_launch("echo never", nullptr, &output);
    }
    EXPECT_EQ(result, -3);
    EXPECT_EQ(output, "");
    EXPECT_TRUE(log.has("ERROR launch - popen failed: Too many open files"));
}

TEST(Launch, BeginDoesNotWaitForTheEnd)
{
    int gate[2] = {-1, -1};
    ASSERT_EQ(pipe(gate), 0);
    const unique_fd reader{gate[0]};
    unique_fd writer{gate[1]};
    // The command reads until the test, which has begun it, closes the gate.
    const std::string command = "exec " + std::to_string(writer.get()) + ">&-; cat <&" +
                                std::to_string(reader.get()) + "; echo done; exit 3";
    common_launched launched = common_launch_begin(command.c_str());
    ASSERT_NE(launched.pipe, nullptr);
    EXPECT_EQ(write(writer.get(), "late ", 5), 5);
    writer.reset();
    int status = 0;
    std::string output;
    EXPECT_EQ(common_launch_end(std::move(launched), &status, &output), 0);
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(output, "late done\n");
}

TEST(Launch, WhatTakesTooLongIsEndedWithAllThatItStarted)
{
    if (is_emulated()) {
        GTEST_SKIP()
            << "the emulator lets posix_spawn return before the child has its process group";
    }
    int alive[2] = {-1, -1}; // everything that the command starts holds the writing end
    ASSERT_EQ(pipe(alive), 0);
    const unique_fd reader{alive[0]};
    unique_fd writer{alive[1]};
    const captured_log log;
    common_launched launched = common_launch_begin("echo partly; sleep 1000 | sleep 1000");
    writer.reset();
    ASSERT_NE(launched.pipe, nullptr);
    launched.pipe->end_time();
    int status = 5;
    std::string output = "old";
    EXPECT_EQ(common_launch_end(std::move(launched), &status, &output), -3);
    EXPECT_EQ(status, 5);
    EXPECT_EQ(output, "");
    EXPECT_TRUE(log.has("ERROR launch - Command takes too long - ended"));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    char byte = 0;
    EXPECT_EQ(read(reader.get(), &byte, 1), 0);
}

TEST(Launch, AShellThatOutlivesItsOutputIsEndedWhenItsTimeIsOver)
{
    if (is_emulated()) {
        GTEST_SKIP()
            << "the emulator lets posix_spawn return before the child has its process group";
    }
    const captured_log log;
    common_launched launched = common_launch_begin("echo all; exec >&-; sleep 1000; true");
    ASSERT_NE(launched.pipe, nullptr);
    EXPECT_TRUE(launched.pipe->read_to_end());
    launched.pipe->end_time();
    std::string output = "old";
    EXPECT_EQ(common_launch_end(std::move(launched), nullptr, &output), -3);
    EXPECT_EQ(output, "");
    EXPECT_TRUE(log.has("ERROR launch - pclose failed: Connection timed out"));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(Launch, AShellThatOutlivesItsOutputForAMomentIsWaitedFor)
{
    int status = 0;
    std::string output;
    EXPECT_EQ(common_launch("echo all; exec >&-; sleep 0.1; exit 3", &status, &output), 0);
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(output, "all\n");
}

TEST(Launch, WhatWaitsInThePipeIsTakenWithoutWaiting)
{
    int gate[2] = {-1, -1};
    ASSERT_EQ(pipe(gate), 0);
    const unique_fd reader{gate[0]};
    unique_fd writer{gate[1]};
    const std::string command =
        "exec " + std::to_string(writer.get()) + ">&-; cat <&" + std::to_string(reader.get());
    common_launched launched = common_launch_begin(command.c_str());
    ASSERT_NE(launched.pipe, nullptr);
    EXPECT_FALSE(launched.pipe->read());
    EXPECT_EQ(write(writer.get(), "now", 3), 3);
    while (launched.pipe->text().empty()) {
        EXPECT_FALSE(launched.pipe->read());
    }
    writer.reset();
    std::string output;
    EXPECT_EQ(common_launch_end(std::move(launched), nullptr, &output), 0);
    EXPECT_EQ(output, "now");
}

TEST(Launch, OfMoreOutputThanAnybodyNeedsFails)
{
    const captured_log log;
    std::string output = "old";
    EXPECT_EQ(common_launch("head -c 1100000 /dev/zero", nullptr, &output), -3);
    EXPECT_EQ(output, "");
    EXPECT_TRUE(log.has("ERROR launch - fread failed: File too large"));
}

TEST(Launch, TheCommandIsEndedByTheSignalsThatWeBlockOrIgnore)
{
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGHUP);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    const auto before = std::signal(SIGPIPE, SIG_IGN);
    const captured_log log;
    EXPECT_EQ(common_launch("kill -HUP $$", nullptr, nullptr), -3);
    EXPECT_EQ(common_launch("kill -PIPE $$", nullptr, nullptr), -3);
    std::signal(SIGPIPE, before);
    sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
}

TEST(Launch, EndTellsWhyBeginFailed)
{
    std::string output = "old";
    EXPECT_EQ(common_launch_end(common_launch_begin(nullptr), nullptr, &output), -2);
    EXPECT_EQ(output, "");
}

TEST(Launch, BegunAndLetGoLeavesNoChildBehind)
{
    static_cast<void>(common_launch_begin("exit 0"));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(Launch, LeavesNoChildBehind)
{
    ASSERT_EQ(common_launch("exit 0", nullptr, nullptr), 0);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

} // namespace
