#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>

#include "load.h"

namespace {

struct directory_closer {
    void operator()(DIR *directory) const noexcept
    {
        closedir(directory);
    }
};

float quantile(const std::vector<float> &sorted, double share)
{
    return sorted[static_cast<std::size_t>(static_cast<double>(sorted.size() - 1) * share)];
}

} // namespace

int load_failure(const std::string &what)
{
    std::fprintf(stderr, "velm-load: %s: %s\n", what.c_str(), std::strerror(errno));
    return 1;
}

std::optional<double> load_cpu_us(pid_t pid)
{
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    const std::unique_ptr<DIR, directory_closer> directory{opendir(tasks.c_str())};
    if (directory == nullptr) {
        return std::nullopt;
    }
    double total = 0;
    bool any = false;
    while (const dirent *entry = readdir(directory.get())) {
        std::ifstream file{tasks + "/" + entry->d_name + "/schedstat"};
        std::uint64_t running_ns = 0;
        if (entry->d_name[0] != '.' && file >> running_ns) {
            total += static_cast<double>(running_ns) / 1e3;
            any = true;
        }
    }
    return any ? std::optional{total} : std::nullopt;
}

double load_seconds_since(load_clock::time_point start)
{
    return std::chrono::duration<double>(load_clock::now() - start).count();
}

void load_result_print(load_result result)
{
    std::printf(
        "{\"load\": \"%s\", \"sent\": %llu, \"answered\": %llu, \"lost\": %llu, "
        "\"wrong\": %llu, \"seconds\": %.3f, \"rate\": %.1f",
        result.name, static_cast<unsigned long long>(result.sent),
        static_cast<unsigned long long>(result.answered),
        static_cast<unsigned long long>(result.sent - std::min(result.sent, result.answered)),
        static_cast<unsigned long long>(result.wrong), result.seconds,
        static_cast<double>(result.answered) / std::max(result.seconds, 1e-9));
    if (!result.latencies_us.empty()) {
        std::sort(result.latencies_us.begin(), result.latencies_us.end());
        std::printf(", \"p50_us\": %.1f, \"p99_us\": %.1f",
                    static_cast<double>(quantile(result.latencies_us, 0.50)),
                    static_cast<double>(quantile(result.latencies_us, 0.99)));
    }
    if (result.cpu_us.has_value() && result.answered > 0) {
        std::printf(", \"cpu_us\": %.3f", *result.cpu_us / static_cast<double>(result.answered));
    }
    std::printf("}\n");
}
