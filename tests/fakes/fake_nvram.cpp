#include "fakes/fake_nvram.h"

#include <nvram.h>

#include <cstring>

fake_nvram_state fake_nvram;

extern "C" char *nvram_unf_get(const char *name)
{
    ++fake_nvram.reads;
    const auto found = fake_nvram.values.find(name);
    return found == fake_nvram.values.end() ? nullptr : strdup(found->second.c_str());
}

extern "C" int nvram_set(const char *name, const char *value)
{
    ++fake_nvram.writes;
    fake_nvram.written.emplace_back(name);
    const bool is_lost = fake_nvram.lost_write > 0 && --fake_nvram.lost_write == 0;
    if (fake_nvram.room == 0 || is_lost) {
        return -1;
    }
    fake_nvram.room -= fake_nvram.room > 0 ? 1 : 0;
    if (*value == '\0' && !fake_nvram.keeps_empty_values) {
        fake_nvram.values.erase(name);
        return 0;
    }
    fake_nvram.values[name] = value;
    return 0;
}

extern "C" int nvram_commit(void)
{
    ++fake_nvram.commits;
    return fake_nvram.commit_fails ? -1 : 0;
}
