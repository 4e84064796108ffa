#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "nvram_store.h"
#include "store_directory.h"

namespace {

/// Failed claims in a child process end it with this status.
int claim(bool holds, const char *what)
{
    if (!holds) {
        std::fprintf(stderr, "not so: %s\n", what);
    }
    return holds ? 0 : 1;
}
#define CLAIM(condition) failed += claim(condition, #condition)

/// Mounts a small file system on the store, seen by this process alone.
bool mount_small(const store_directory &directory, const char *options)
{
    return unshare(CLONE_NEWNS) == 0 &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", directory.path().c_str(), "tmpfs", 0, options) == 0;
}

class Unwritable : public testing::Test {
  protected:
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "mounting the small file system needs root";
        }
        nvram_store maker{directory.path(), this_boot};
        ASSERT_EQ(maker.find("a"), nullptr); // makes the directory
    }

    /// What in_process gives, on a file system of its own in the store's place.
    template <typename Body>
    int in_process_on_disk(const char *options, Body &&body)
    {
        return in_process([this, options, &body] {
            if (!mount_small(directory, options)) {
                std::perror("mount");
                return 9;
            }
            return body();
        });
    }

    store_directory directory;
};

const std::string page(4096, 'p');

TEST_F(Unwritable, FullDiskRefusesSetsAndCommitsAndLosesNothing)
{
    ASSERT_EQ(in_process_on_disk(
                  "size=64k",
                  [this] {
                      int failed = 0;
                      nvram_store store{directory.path(), this_boot};
                      CLAIM(set(store, {{"kept", page}}) == 0);
                      CLAIM(store.commit() == 0);
                      plain_settings accepted{{"kept", page}};
                      int rc = 0;
                      for (int i = 0; i < 100 && rc == 0; ++i) {
                          const std::string name = "more_" + std::to_string(i);
                          rc = set(store, {{name, page}});
                          if (rc == 0) {
                              accepted[name] = page;
                          }
                      }
                      CLAIM(rc == ENOSPC);
                      CLAIM(accepted.size() > 3);
                      CLAIM(set(store, {{"more", page}}) == ENOSPC);
                      CLAIM(all_of(store) == accepted);
                      CLAIM(seen_now(directory) == accepted);
                      CLAIM(store.commit() == ENOSPC);
                      CLAIM(seen_after_power_cut(directory) == (plain_settings{{"kept", page}}));
                      CLAIM(seen_now(directory) == accepted);
                      return failed;
                  }),
              0);
}

TEST_F(Unwritable, DiskThatIsFullNoMoreTakesSetsAndCommitsAgain)
{
    ASSERT_EQ(in_process_on_disk("size=96k",
                                 [this] {
                                     int failed = 0;
                                     nvram_store store{directory.path(), this_boot};
                                     CLAIM(set(store, {{"a", "1"}}) == 0);
                                     put_bytes(directory.file("ballast"), std::string(200000, 'b'));
                                     CLAIM(set(store, {{"b", page}}) == ENOSPC);
                                     CLAIM(set(store, {{"b", page}}) == ENOSPC);
                                     CLAIM(store.commit() == ENOSPC);
                                     unlink(directory.file("ballast").c_str());
                                     CLAIM(set(store, {{"b", page}}) == 0);
                                     CLAIM(store.commit() == 0);
                                     const plain_settings expected{{"a", "1"}, {"b", page}};
                                     CLAIM(all_of(store) == expected);
                                     CLAIM(seen_now(directory) == expected);
                                     CLAIM(seen_after_power_cut(directory) == expected);
                                     return failed;
                                 }),
              0);
}

/// Three values with one commit, and not a page that is free.
int fill_with_one_commit(const store_directory &directory, nvram_store &store)
{
    int failed = 0;
    CLAIM(set(store, {{"a", page}, {"b", page}, {"c", page}}) == 0);
    CLAIM(store.commit() == 0);
    put_bytes(directory.file("ballast"), std::string(200000, 'b'));
    CLAIM(set(store, {{"more", page}}) == ENOSPC);
    return failed;
}

TEST_F(Unwritable, ShorterCommitNeedsNoRoomAlsoWhenItIsTheSecondOne)
{
    ASSERT_EQ(in_process_on_disk(
                  "size=64k",
                  [this] {
                      nvram_store store{directory.path(), this_boot};
                      int failed = fill_with_one_commit(directory, store);
                      nvram_store daemon{directory.path(), this_boot}; // has read it before
                      CLAIM(all_of(daemon).size() == 3);
                      for (const char *const name : {"a", "b", "c"}) {
                          plain_settings left = all_of(store);
                          left.erase(name);
                          CLAIM(unset(store, name) == 0);
                          CLAIM(all_of(daemon) == left);
                          CLAIM(store.commit() == 0);
                          CLAIM(store.commit() == 0); // once more, with nothing new
                          CLAIM(store.revert() == 0);
                          CLAIM(all_of(store) == left);
                          CLAIM(all_of(daemon) == left);
                          CLAIM(seen_now(directory) == left);
                          CLAIM(seen_after_power_cut(directory) == left);
                      }
                      unlink(directory.file("ballast").c_str());
                      CLAIM(set(daemon, {{"d", page}}) == 0);
                      CLAIM(all_of(store) == (plain_settings{{"d", page}}));
                      CLAIM(daemon.commit() == 0);
                      CLAIM(seen_after_power_cut(directory) == (plain_settings{{"d", page}}));
                      return failed;
                  }),
              0);
}

TEST_F(Unwritable, CommitThatIsRefusedOnAFullDiskLeavesRoomToBecomeSmaller)
{
    ASSERT_EQ(in_process_on_disk(
                  "size=64k",
                  [this] {
                      int failed = 0;
                      nvram_store store{directory.path(), this_boot};
                      CLAIM(set(store, {{"a", "1"}}) == 0);
                      CLAIM(store.commit() == 0);
                      CLAIM(set(store, {{"b", page}, {"c", page}}) == 0);
                      put_bytes(directory.file("ballast"), std::string(200000, 'b'));
                      CLAIM(store.commit() == ENOSPC); // longer than any before
                      CLAIM(unset(store, "b") == 0);
                      CLAIM(seen_now(directory) == (plain_settings{{"a", "1"}, {"c", page}}));
                      CLAIM(unset(store, "c") == 0);
                      CLAIM(store.commit() == 0);
                      CLAIM(seen_after_power_cut(directory) == (plain_settings{{"a", "1"}}));
                      return failed;
                  }),
              0);
}

TEST_F(Unwritable, ReadOnlyStoreIsReadAndRefusesSetsAndCommits)
{
    ASSERT_EQ(in_process_on_disk(
                  "size=256k",
                  [this] {
                      int failed = 0;
                      {
                          nvram_store store{directory.path(), this_boot};
                          CLAIM(set(store, {{"a", "1"}}) == 0);
                          CLAIM(store.commit() == 0);
                          CLAIM(set(store, {{"a", "2"}}) == 0);
                      }
                      // What is open for writing would keep the mount from becoming read-only.
                      CLAIM(mount("none", directory.path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY,
                                  nullptr) == 0);
                      nvram_store store{directory.path(), this_boot};
                      CLAIM(value_of(store, "a") == "2");
                      CLAIM(set(store, {{"a", "3"}}) == EROFS);
                      CLAIM(store.commit() == EROFS);
                      CLAIM(store.revert() == EROFS);
                      CLAIM(value_of(store, "a") == "2");
                      CLAIM(seen_after_power_cut(directory) == (plain_settings{{"a", "1"}}));
                      return failed;
                  }),
              0);
}

} // namespace
