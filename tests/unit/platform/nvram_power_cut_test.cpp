/// The machine loses its power at each step that a commit makes. This program's own write, fsync and
/// renameat stand in for the C library's: they count the steps, and at the chosen one what was
/// written or renamed but not synced is lost, wholly, in part or not at all. On a full disk they
/// refuse to write a new file.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "nvram_store.h"
#include "store_directory.h"

namespace {

enum class loss { everything, second_half, nothing };

struct unsynced_file {
    int file;
    ino_t inode;
    off_t synced_size;
    std::string before; // its bytes when it was written to first
};
struct unsynced_rename {
    int directory;
    std::string from, to, undo; // `undo` is what `to` was; empty when it was nothing
};

struct machine {
    bool watching = false;
    int steps_left = 0;
    loss data = loss::everything;
    bool renames_stay = false;
    bool disk_is_full = false;
    bool acknowledged = false;
    std::vector<unsynced_file> files;
    std::vector<unsynced_rename> renames;
};
machine power;

constexpr int status_cut = 77;
constexpr int status_cut_after_acknowledging = 78;

void lose_what_was_written_over(const unsynced_file &file, off_t size)
{
    const std::size_t over = std::min(file.before.size(), static_cast<std::size_t>(size));
    std::size_t from = 0;
    switch (power.data) {
    case loss::everything:
        break;
    case loss::second_half:
        from = over / 2;
        break;
    case loss::nothing:
        from = over;
        break;
    }
    if (pwrite(file.file, file.before.data() + from, over - from, static_cast<off_t>(from)) !=
        static_cast<ssize_t>(over - from)) {
        std::abort();
    }
}

void lose_data(const unsynced_file &file)
{
    struct stat found = {};
    fstat(file.file, &found);
    const off_t written = found.st_size - file.synced_size;
    off_t kept = written;
    switch (power.data) {
    case loss::everything:
        kept = 0;
        break;
    case loss::second_half:
        kept = written / 2;
        break;
    case loss::nothing:
        break;
    }
    // A file may keep its new size over blocks that were never written: they read as zeros.
    if (kept != written && (ftruncate(file.file, file.synced_size + kept) != 0 ||
                            ftruncate(file.file, found.st_size) != 0)) {
        std::abort();
    }
    lose_what_was_written_over(file, found.st_size);
}

void lose_rename(const unsynced_rename &rename)
{
    syscall(SYS_renameat, rename.directory, rename.to.c_str(), rename.directory,
            rename.from.c_str());
    if (!rename.undo.empty()) {
        syscall(SYS_renameat, rename.directory, rename.undo.c_str(), rename.directory,
                rename.to.c_str());
    }
}

void step()
{
    if (power.steps_left-- > 0) {
        return;
    }
    power.watching = false;
    std::for_each(power.files.begin(), power.files.end(), lose_data);
    if (!power.renames_stay) {
        std::for_each(power.renames.rbegin(), power.renames.rend(), lose_rename);
    }
    _exit(power.acknowledged ? status_cut_after_acknowledging : status_cut);
}

void note_write(int fd)
{
    struct stat found = {};
    fstat(fd, &found);
    const bool known =
        std::any_of(power.files.begin(), power.files.end(),
                    [&found](const unsynced_file &file) { return file.inode == found.st_ino; });
    if (!known) {
        // Opened anew: the caller's may be write-only and closed before the cut.
        const std::string path = "/proc/self/fd/" + std::to_string(fd);
        power.files.push_back(
            {open(path.c_str(), O_RDWR), found.st_ino, found.st_size, bytes_of(path)});
    }
}

bool is_new_file(int fd)
{
    const std::string path =
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).string();
    return path.ends_with(".tmp");
}

void note_sync(int fd)
{
    struct stat found = {};
    fstat(fd, &found);
    if (S_ISDIR(found.st_mode)) {
        power.renames.clear();
    }
    std::erase_if(power.files,
                  [&found](const unsynced_file &file) { return file.inode == found.st_ino; });
}

void note_rename(int directory, const char *from, const char *to)
{
    const std::string undo = std::string{to} + ".undo" + std::to_string(power.renames.size());
    const bool existed = linkat(directory, to, directory, undo.c_str(), 0) == 0;
    power.renames.push_back({directory, from, to, existed ? undo : ""});
}

} // namespace

extern "C" ssize_t write(int fd, const void *bytes, size_t count)
{
    if (power.watching) {
        step();
        if (power.disk_is_full && is_new_file(fd)) {
            errno = ENOSPC;
            return -1;
        }
        note_write(fd);
    }
    return syscall(SYS_write, fd, bytes, count);
}

extern "C" int fsync(int fd)
{
    if (power.watching) {
        step();
        note_sync(fd);
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" int renameat(int from_directory, const char *from, int to_directory,
                        const char *to) noexcept
{
    if (power.watching) {
        step();
        note_rename(to_directory, from, to);
    }
    return static_cast<int>(syscall(SYS_renameat, from_directory, from, to_directory, to));
}

namespace {

const plain_settings old_settings{{"a", "1"}, {"b", std::string(9000, '1')}};
const plain_settings new_settings{{"a", "2"}, {"b", std::string(9000, '2')}};

struct cut_case {
    const char *title;
    loss data;
    bool renames_stay;
};

void watch_steps(const cut_case &row, int steps)
{
    power.data = row.data;
    power.renames_stay = row.renames_stay;
    power.steps_left = steps;
    power.watching = true;
}

/// Sets and commits; the power is cut before the given step, or right after all of them.
int commit_until_cut(const store_directory &directory, const cut_case &row, int steps)
{
    nvram_store store{directory.path(), this_boot};
    (void)store.find("a");
    watch_steps(row, steps);
    power.acknowledged = set(store, new_settings) == 0 && store.commit() == 0;
    power.steps_left = 0;
    step();
    return 1;
}

class PowerCut : public testing::TestWithParam<cut_case> {
  protected:
    void expect_old_or_new_at_each_step(void (*damage)(const store_directory &))
    {
        int status = status_cut;
        int steps = 0;
        for (; status == status_cut; ++steps) {
            const store_directory directory;
            make_old_commit(directory);
            damage(directory);
            status = in_process(
                [&directory, steps] { return commit_until_cut(directory, GetParam(), steps); });
            const plain_settings settings = seen_after_power_cut(directory);
            ASSERT_TRUE(settings == new_settings ||
                        (settings == old_settings && status == status_cut))
                << "cut before step " << steps;
        }
        EXPECT_EQ(status, status_cut_after_acknowledging);
        EXPECT_GE(steps, 6) << "set, write, sync, rename and sync are steps of their own";
    }

  private:
    static void make_old_commit(const store_directory &directory)
    {
        nvram_store store{directory.path(), this_boot};
        ASSERT_EQ(set(store, {{"before", "0"}}), 0);
        ASSERT_EQ(store.commit(), 0);
        ASSERT_EQ(unset(store, "before"), 0);
        ASSERT_EQ(set(store, old_settings), 0);
        ASSERT_EQ(store.commit(), 0);
    }
};

TEST_P(PowerCut, AtEachStepOfACommitLeavesTheOldOrTheNewOne)
{
    expect_old_or_new_at_each_step([](const store_directory &) {});
}

TEST_P(PowerCut, AtEachStepOfACommitOverADamagedCopyLeavesTheOldOrTheNewOne)
{
    expect_old_or_new_at_each_step([](const store_directory &directory) {
        put_bytes(directory.file("committed.0"), "damaged");
    });
}

const plain_settings three_settings{
    {"a", std::string(3000, 'a')}, {"b", std::string(3000, 'b')}, {"c", std::string(3000, 'c')}};
const plain_settings two_settings{{"a", std::string(3000, 'a')}, {"b", std::string(3000, 'b')}};

/// Takes a value away and commits, where no new file can be written and there is one commit.
int commit_less_until_cut(const store_directory &directory, const cut_case &row, int steps)
{
    nvram_store store{directory.path(), this_boot};
    (void)store.find("a");
    power.disk_is_full = true;
    watch_steps(row, steps);
    power.acknowledged = unset(store, "c") == 0 && store.commit() == 0;
    if (power.acknowledged) {
        power.steps_left = 0;
        step();
    }
    return 1;
}

TEST_P(PowerCut, AtEachStepOfACommitOnAFullDiskLeavesTheOldOrTheNewOne)
{
    int status = status_cut;
    int steps = 0;
    for (; status == status_cut; ++steps) {
        const store_directory directory;
        {
            nvram_store store{directory.path(), this_boot};
            ASSERT_EQ(set(store, three_settings), 0);
            ASSERT_EQ(store.commit(), 0);
        }
        status = in_process(
            [&directory, steps] { return commit_less_until_cut(directory, GetParam(), steps); });
        if (GetParam().data == loss::nothing &&
            GetParam().renames_stay) { // nobody but the writer died
            const plain_settings now = seen_now(directory);
            ASSERT_TRUE(now == three_settings || now == two_settings) << "killed at step " << steps;
            nvram_store next{directory.path(), this_boot};
            ASSERT_EQ(set(next, {{"d", "4"}}), 0) << "killed at step " << steps;
            ASSERT_EQ(seen_now(directory).count("d"), 1U);
        }
        const plain_settings settings = seen_after_power_cut(directory);
        ASSERT_TRUE(settings == two_settings ||
                    (settings == three_settings && status == status_cut))
            << "cut before step " << steps;
    }
    EXPECT_EQ(status, status_cut_after_acknowledging);
    EXPECT_GE(steps, 7) << "two writes in place, sync, rename and sync are steps of their own";
}

INSTANTIATE_TEST_SUITE_P(Losses, PowerCut,
                         testing::Values(cut_case{"AllThatWasNotSynced", loss::everything, false},
                                         cut_case{"DataButNoNames", loss::everything, true},
                                         cut_case{"HalfTheData", loss::second_half, true},
                                         cut_case{"NamesButNoData", loss::nothing, false},
                                         cut_case{"Nothing", loss::nothing, true}),
                         [](const auto &row) { return std::string{row.param.title}; });

} // namespace
