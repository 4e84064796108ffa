#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "nvram_store.h"

/// Two boots of the machine: a store opened with another boot id is one after a power cut.
inline constexpr char this_boot[] = "11111111-2222-3333-4444-555555555555";
inline constexpr char next_boot[] = "99999999-8888-7777-6666-555555555555";

using plain_settings = std::map<std::string, std::string>;

/// A directory of the test's own, gone when it ends; the store in it is not made yet.
class store_directory {
  public:
    store_directory()
    {
        std::string name = std::filesystem::temp_directory_path() / "nvram_XXXXXX";
        parent_ = mkdtemp(name.data());
    }
    ~store_directory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(parent_, ignored);
    }
    store_directory(const store_directory &) = delete;
    store_directory &operator=(const store_directory &) = delete;

    [[nodiscard]] std::string parent() const
    {
        return parent_;
    }
    [[nodiscard]] std::string path() const
    {
        return parent_ + "/store";
    }
    [[nodiscard]] std::string file(const std::string &name) const
    {
        return path() + "/" + name;
    }

  private:
    std::string parent_;
};

inline std::string bytes_of(const std::string &path)
{
    std::ifstream in{path, std::ios::binary};
    return {std::istreambuf_iterator<char>{in}, {}};
}

inline void put_bytes(const std::string &path, const std::string &bytes)
{
    // A new inode each time, as another program that replaces the file would make.
    std::filesystem::remove(path);
    std::ofstream{path, std::ios::binary} << bytes;
}

inline int set(nvram_store &store, const plain_settings &settings)
{
    std::vector<nvram_change> changes;
    for (const auto &[name, value] : settings) {
        changes.push_back({name, value});
    }
    return store.apply(changes);
}

inline int unset(nvram_store &store, const std::string &name)
{
    const nvram_change change{name, std::nullopt};
    return store.apply({&change, 1});
}

inline std::string value_of(nvram_store &store, const std::string &name)
{
    const std::string *const value = store.find(name);
    return value == nullptr ? "(absent)" : *value;
}

inline plain_settings all_of(nvram_store &store)
{
    const nvram_settings &settings = store.settings();
    return {settings.begin(), settings.end()};
}

/// What a process sees that starts now.
inline plain_settings seen_now(const store_directory &directory)
{
    nvram_store store{directory.path(), this_boot};
    return all_of(store);
}

/// What is left after a power cut.
inline plain_settings seen_after_power_cut(const store_directory &directory)
{
    nvram_store store{directory.path(), next_boot};
    return all_of(store);
}

/// Runs `body` in a process of its own, which ends with its result.
template <typename Body>
pid_t start_process(Body &&body)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int result = body();
        std::fflush(nullptr);
        _exit(result);
    }
    return child;
}

/// The exit status; -1 when a signal ended the process.
inline int wait_for(pid_t child)
{
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

template <typename Body>
int in_process(Body &&body)
{
    return wait_for(start_process(std::forward<Body>(body)));
}
