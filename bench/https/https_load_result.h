#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <vector>

/// What a run of the load client saw, printed as one line of JSON.
struct load_result {
    std::vector<std::uint32_t> latencies_us; // of each answered request, a new connection included
    std::map<int, std::uint64_t> statuses;
    std::uint64_t connections = 0; // that were opened
    std::uint64_t offered = 0;     // answered requests whose connection had a session to resume
    std::uint64_t resumed = 0;     // of these
    std::uint64_t failures = 0;    // connections that broke, with their requests
    double seconds = 0;

    void add_answer(int status, std::chrono::steady_clock::duration latency);
};

void load_result_print(load_result result);
