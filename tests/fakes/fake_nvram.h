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
};

extern fake_nvram_state fake_nvram;
