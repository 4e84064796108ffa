#include <nvram.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "handles/exhaustion.h"
#include "host_files.h"
#include "nvram_store.h"

namespace {

constexpr char default_directory[] = "/var/lib/velmd/nvram";
constexpr char boot_id_path[] = "/proc/sys/kernel/random/boot_id";

struct module_state {
    std::string asked_for; // the directory as VELM_NVRAM names it
    std::optional<nvram_store> store;
    int failure = 0; // of the last write
};
module_state state;

std::string boot_id_read()
{
    const unique_fd file{open(boot_id_path, O_RDONLY | O_CLOEXEC)};
    host_bytes bytes;
    if (!file || host_file_read(file.get(), 0, nvram_boot_id_size, bytes) != 0) {
        return {};
    }
    return {bytes.begin(), bytes.end()};
}

/// The daemon changes its working directory when it detaches; the store must not move with it.
std::string absolute_path(std::string_view path)
{
    while (path.size() > 1 && path.ends_with('/')) {
        path.remove_suffix(1);
    }
    char here[4096];
    if (path.starts_with('/') || getcwd(here, sizeof here) == nullptr) {
        return std::string{path};
    }
    return std::string{here} + "/" + std::string{path};
}

/// Callers may not look at the result, so a failure that is new leaves a line.
int result_of(const char *what, int rc)
{
    if (rc != 0 && rc != state.failure) {
        std::fprintf(stderr, "nvram: cannot %s: %s\n", what, nvram_store_error_text(rc));
    }
    state.failure = rc;
    return rc == 0 ? 0 : -1;
}

} // namespace

nvram_store &nvram_store_of_environment()
{
    const char *const named = std::getenv("VELM_NVRAM");
    const std::string_view directory =
        named != nullptr && named[0] != '\0' ? named : default_directory;
    if (!state.store || state.asked_for != directory) {
        state.asked_for = directory;
        state.failure = 0;
        state.store.emplace(absolute_path(directory), boot_id_read());
    }
    return *state.store;
}

extern "C" char *nvram_unf_get(const char *name)
{
    if (name == nullptr) {
        return nullptr;
    }
    const std::string *const value = nvram_store_of_environment().find(name);
    if (value == nullptr) {
        return nullptr;
    }
    char *const copy = strdup(value->c_str());
    // Null would say that the setting is absent.
    memory_is_exhausted_if(copy == nullptr);
    return copy;
}

extern "C" int nvram_set(const char *name, const char *value)
{
    if (name == nullptr || value == nullptr) {
        return -1;
    }
    const nvram_change change{name, value};
    return result_of("set", nvram_store_of_environment().apply({&change, 1}));
}

extern "C" int nvram_commit(void)
{
    return result_of("commit", nvram_store_of_environment().commit());
}
