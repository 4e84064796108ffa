#include "https_load_result.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

/// The smallest value that so many of all do not exceed; 0 of none. `sorted` is not changed.
std::uint32_t quantile(const std::vector<std::uint32_t> &sorted, double share)
{
    if (sorted.empty()) {
        return 0;
    }
    const auto rank =
        static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size())));
    return sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1];
}

} // namespace

void load_result::add_answer(int status, std::chrono::steady_clock::duration latency)
{
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(latency).count();
    latencies_us.push_back(static_cast<std::uint32_t>(us));
    ++statuses[status];
}

void load_result_print(load_result result)
{
    std::vector<std::uint32_t> &latencies = result.latencies_us;
    std::sort(latencies.begin(), latencies.end());
    const double rate =
        result.seconds > 0 ? static_cast<double>(latencies.size()) / result.seconds : 0;
    std::printf("{\"requests\": %zu, \"seconds\": %.6f, \"rate\": %.3f, \"p50_us\": %u, "
                "\"p99_us\": %u, \"max_us\": %u, \"connections\": %llu, \"offered\": %llu, "
                "\"resumed\": %llu, "
                "\"failures\": %llu, \"statuses\": {",
                latencies.size(), result.seconds, rate, quantile(latencies, 0.5),
                quantile(latencies, 0.99), quantile(latencies, 1.0),
                static_cast<unsigned long long>(result.connections),
                static_cast<unsigned long long>(result.offered),
                static_cast<unsigned long long>(result.resumed),
                static_cast<unsigned long long>(result.failures));
    const char *separator = "";
    for (const auto &[status, count] : result.statuses) {
        std::printf("%s\"%d\": %llu", separator, status, static_cast<unsigned long long>(count));
        separator = ", ";
    }
    std::puts("}}");
    std::fflush(stdout);
}
