#pragma once

#include <map>
#include <string>
#include <vector>

/// nvram in memory, for tests that need no store: the functions of platform/include over a map.
struct fake_nvram_state {
    std::map<std::string, std::string> values;
    int commits = 0;
    int reads = 0;
    int writes = 0;
    std::vector<std::string> written; // every name that was set, in order
    int room = -1;                    // so many more writes are kept; -1: all
    int lost_write = 0;               // of the next writes this one is lost; 0: none
    bool keeps_empty_values = true;
    bool commit_fails = false;
};

extern fake_nvram_state fake_nvram;
