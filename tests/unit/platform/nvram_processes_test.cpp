#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "handles/fd.h"
#include "nvram_store.h"
#include "store_directory.h"

namespace {

/// What a writer tells before and after each step of a round.
struct progress {
    int setting = 0, set = 0, committing = 0, committed = 0;
};

plain_settings round_settings(int round)
{
    const std::string number = std::to_string(round);
    // Of very different sizes, so that a kill may hit a write that the kernel does in pieces.
    return {{"a", number},
            {"b", number},
            {"c", std::string(static_cast<std::size_t>(round * 7919 % 60000), 'c') + number}};
}

/// Sets and commits round after round until it is killed, telling the pipe its progress.
int write_for_ever(const store_directory &directory, int from, int tell)
{
    nvram_store store{directory.path(), this_boot};
    progress now{from, from, from, from};
    const auto say = [&now, tell] { return write(tell, &now, sizeof now) == sizeof now; };
    for (int round = from + 1;; ++round) {
        now.setting = round;
        bool good = say() && set(store, round_settings(round)) == 0;
        now.set = round;
        good = good && say();
        now.committing = round;
        good = good && say() && store.commit() == 0;
        now.committed = round;
        if (!good || !say()) {
            return 1;
        }
    }
}

/// Kills the writer somewhere in its `rounds`-th round from now; gives its last word.
progress kill_at_random(pid_t writer, int tell, int rounds, std::mt19937 &random)
{
    progress last;
    for (int i = 0; i < 4 * rounds; ++i) {
        EXPECT_EQ(read(tell, &last, sizeof last), static_cast<ssize_t>(sizeof last));
    }
    const unsigned spins = random() % 4000;
    for (unsigned i = 0; i < spins; ++i) {
        sched_yield();
    }
    kill(writer, SIGKILL);
    EXPECT_EQ(wait_for(writer), -1) << "the writer failed before it was killed";
    while (read(tell, &last, sizeof last) == static_cast<ssize_t>(sizeof last)) {
    }
    return last;
}

/// The round whose settings these are; they must be all of one round.
int round_of(const plain_settings &settings)
{
    if (settings.empty()) {
        return 0;
    }
    const int round = std::atoi(settings.at("a").c_str());
    EXPECT_EQ(settings, round_settings(round)) << "a mixture of rounds";
    return round;
}

int rounds_asked_for()
{
    const char *const asked = std::getenv("VELM_KILL_ROUNDS");
    return asked == nullptr ? 50 : std::atoi(asked);
}

TEST(Killed, WriterLeavesWholeSettingsAndTheLastFinishedCommitOrTheOneInProgress)
{
    const store_directory directory;
    std::mt19937 random{4711};
    int from = 0;
    for (int i = 0; i < rounds_asked_for(); ++i) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        unique_fd reader{ends[0]};
        unique_fd writer{ends[1]};
        const pid_t child = start_process(
            [&directory, from, &writer] { return write_for_ever(directory, from, writer.get()); });
        writer.reset();
        const progress last =
            kill_at_random(child, reader.get(), static_cast<int>(1 + random() % 3), random);

        const int live = round_of(seen_now(directory));
        EXPECT_GE(live, last.set);
        EXPECT_LE(live, last.setting);
        const int committed = round_of(seen_after_power_cut(directory));
        EXPECT_GE(committed, last.committed);
        EXPECT_LE(committed, last.committing);
        ASSERT_FALSE(HasFailure()) << "round " << i;
        from = live;
    }
}

constexpr int writers = 4;
constexpr int sets_each = 100;

std::string setting_name(int writer, int i)
{
    return "writer_" + std::to_string(writer) + "_" + std::to_string(i);
}

int write_own_settings(const store_directory &directory, int writer)
{
    nvram_store store{directory.path(), this_boot};
    for (int i = 0; i < sets_each; ++i) {
        const bool done = set(store, {{setting_name(writer, i), std::to_string(i)}}) == 0 &&
                          // Commits and changes of a shared setting come between.
                          (i % 25 != 0 || store.commit() == 0) &&
                          set(store, {{"shared", std::to_string(writer)}}) == 0 &&
                          value_of(store, setting_name(writer, i)) == std::to_string(i);
        if (!done) {
            return 1;
        }
    }
    return store.commit();
}

TEST(Writers, OfFourProcessesLoseNoneOfEachOthersSettings)
{
    const store_directory directory;
    std::vector<pid_t> children;
    for (int writer = 0; writer < writers; ++writer) {
        children.push_back(
            start_process([&directory, writer] { return write_own_settings(directory, writer); }));
    }
    for (const pid_t child : children) {
        EXPECT_EQ(wait_for(child), 0);
    }
    for (const plain_settings &settings : {seen_now(directory), seen_after_power_cut(directory)}) {
        EXPECT_EQ(settings.size(), std::size_t{writers * sets_each + 1});
        for (int writer = 0; writer < writers; ++writer) {
            for (int i = 0; i < sets_each; ++i) {
                ASSERT_TRUE(settings.contains(setting_name(writer, i))) << setting_name(writer, i);
            }
        }
    }
}

TEST(Writers, ThatWriteLongValuesShowReadersOnlyWholeOnes)
{
    const store_directory directory;
    nvram_store store{directory.path(), this_boot};
    ASSERT_EQ(set(store, round_settings(1)), 0);
    const pid_t child = start_process([&directory] {
        nvram_store writer{directory.path(), this_boot};
        for (int round = 2; round < 400; ++round) {
            if (set(writer, round_settings(round)) != 0) {
                return 1;
            }
        }
        return 0;
    });
    testing::internal::CaptureStderr();
    int last = 0;
    while (last < 399 && !testing::Test::HasFailure()) {
        const int round = round_of(all_of(store));
        EXPECT_GE(round, last) << "an older value came back";
        last = round;
        int status = 0;
        if (last < 399 && waitpid(child, &status, WNOHANG) == child) {
            EXPECT_EQ(status, 0);
            EXPECT_EQ(round_of(all_of(store)), 399);
            EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
            return;
        }
    }
    EXPECT_EQ(wait_for(child), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

} // namespace
