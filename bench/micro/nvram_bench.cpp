#include <benchmark/benchmark.h>
#include <nvram.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <unordered_map>

#include "handles/malloc.h"

/// Reading one setting among 500 of the host's store, beside what it cannot do without: a look at
/// the file that another process may have changed, a look-up, and the copy that the caller frees.

namespace {

constexpr int settings = 500;

std::string name_of(int index)
{
    return "zelkad_setting_" + std::to_string(index);
}

std::string value_of(int index)
{
    return "the value of setting " + std::to_string(index);
}

/// A store of its own, removed with the object.
class filled_store {
  public:
    filled_store()
    {
        char path[] = "/tmp/velm-micro-XXXXXX";
        if (mkdtemp(path) == nullptr) {
            return;
        }
        path_ = path;
        setenv("VELM_NVRAM", path, 1);
        filled_ = true;
        for (int i = 0; i < settings; ++i) {
            filled_ = nvram_set(name_of(i).c_str(), value_of(i).c_str()) == 0 && filled_;
        }
    }
    filled_store(const filled_store &) = delete;
    filled_store &operator=(const filled_store &) = delete;
    ~filled_store()
    {
        unsetenv("VELM_NVRAM");
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    [[nodiscard]] bool filled() const
    {
        return filled_;
    }
    [[nodiscard]] const std::string &path() const
    {
        return path_;
    }

  private:
    std::string path_;
    bool filled_ = false;
};

void nvram_velmd(benchmark::State &state)
{
    const filled_store store;
    const std::string wanted = name_of(settings / 2);
    const std::string expected = value_of(settings / 2);
    for (auto _ : state) {
        const malloc_text value{nvram_unf_get(wanted.c_str())};
        if (!store.filled() || value == nullptr || expected != value.get()) {
            state.SkipWithError("not read");
            break;
        }
    }
}

void nvram_bare(benchmark::State &state)
{
    const filled_store store;
    const std::string file = store.path() + "/live";
    std::unordered_map<std::string, std::string> values;
    for (int i = 0; i < settings; ++i) {
        values[name_of(i)] = value_of(i);
    }
    const std::string wanted = name_of(settings / 2);
    const std::string expected = value_of(settings / 2);
    for (auto _ : state) {
        struct stat now {};
        const bool there = stat(file.c_str(), &now) == 0;
        const malloc_text value{strdup(values.find(wanted)->second.c_str())};
        if (!there || expected != value.get()) {
            state.SkipWithError("not read");
            break;
        }
    }
}

BENCHMARK(nvram_velmd)->Name("nvram read of 1 in 500/velmd");
BENCHMARK(nvram_bare)->Name("nvram read of 1 in 500/bare");

} // namespace
