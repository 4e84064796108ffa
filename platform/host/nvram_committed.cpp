#include "nvram_committed.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "host_files.h"
#include "nvram_live.h"

namespace {

enum class copy_fate { absent, good, damaged };

struct copy {
    copy_fate fate = copy_fate::absent;
    std::uint64_t sequence = 0;
    nvram_settings settings;
};

void copy_parse(const host_bytes &bytes, copy &out)
{
    const auto header = nvram_header_parse(bytes);
    if (!header || !header->boot_id.empty()) {
        return;
    }
    const auto read =
        nvram_records_apply(std::span{bytes}.subspan(nvram_header_size), out.settings);
    if (read.records == 1 && read.end == nvram_log_end::clean) {
        out.fate = copy_fate::good;
        out.sequence = header->sequence;
    }
}

int copy_read(int directory, const char *name, copy &out)
{
    const unique_fd file{openat(directory, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)};
    if (!file && errno == ENOENT) {
        return 0;
    }
    out.fate = copy_fate::damaged;
    if (!file) {
        return errno == ELOOP ? 0 : errno;
    }
    struct stat found = {};
    if (fstat(file.get(), &found) != 0) {
        return errno;
    }
    if (!S_ISREG(found.st_mode) || found.st_size > nvram_file_max) {
        return 0;
    }
    host_bytes bytes;
    const int rc = host_file_read(file.get(), 0, found.st_size, bytes);
    if (rc != 0) {
        return rc == EIO ? 0 : rc;
    }
    copy_parse(bytes, out);
    return 0;
}

/// The copy to replace: a damaged one first, else the one that does not count.
std::size_t slot_to_replace(const nvram_committed &committed)
{
    if (committed.damaged[0] || committed.damaged[1]) {
        return committed.damaged[0] ? 0 : 1;
    }
    return committed.newest == 0 ? 1 : 0;
}

/// A damaged copy may yet be rescued by hand.
int put_aside(int directory, const std::string &name, bool is_damaged)
{
    if (is_damaged &&
        renameat(directory, name.c_str(), directory, (name + ".damaged").c_str()) != 0) {
        return errno;
    }
    return 0;
}

int sync_file_and_directory(int directory, const char *name)
{
    const unique_fd file{openat(directory, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW)};
    return file && fsync(file.get()) == 0 && fsync(directory) == 0 ? 0 : errno;
}

} // namespace

int nvram_committed_read(int directory, nvram_committed &committed)
{
    committed = {};
    for (std::size_t i = 0; i < nvram_committed_names.size(); ++i) {
        copy found;
        if (const int rc = copy_read(directory, nvram_committed_names[i], found); rc != 0) {
            return rc;
        }
        committed.damaged[i] = found.fate == copy_fate::damaged;
        if (found.fate == copy_fate::good &&
            (committed.newest < 0 || found.sequence > committed.sequence)) {
            committed.newest = static_cast<int>(i);
            committed.sequence = found.sequence;
            committed.settings = std::move(found.settings);
        }
    }
    return 0;
}

int nvram_committed_write(int directory, const nvram_committed &committed,
                          const nvram_settings &settings)
{
    if (committed.newest >= 0 && !committed.any_damaged() && committed.settings == settings) {
        // Nothing new for the flash; but the commit that wrote it may have died before its sync.
        return sync_file_and_directory(
            directory, nvram_committed_names[static_cast<std::size_t>(committed.newest)]);
    }
    const std::size_t slot = slot_to_replace(committed);
    const std::string name = nvram_committed_names[slot];
    if (const int rc = put_aside(directory, name, committed.damaged[slot]); rc != 0) {
        return rc;
    }
    unique_fd file;
    const host_bytes bytes = nvram_file_make({committed.sequence + 1, {}}, settings);
    if (const int rc = host_file_replace(directory, name, bytes, file); rc != 0) {
        return rc;
    }
    if (committed.newest < 0) {
        // The sequence began anew: what cannot be read now must not outdo it when it can be again.
        const std::size_t other = 1 - slot;
        const int rc = put_aside(directory, nvram_committed_names[other], committed.damaged[other]);
        if (rc != 0) {
            return rc;
        }
    }
    return fsync(directory) == 0 ? 0 : errno;
}

int nvram_committed_take_live(int directory, const nvram_committed &committed,
                              const std::string &boot_id, nvram_live &live,
                              const nvram_settings &settings)
{
    const host_bytes bytes = nvram_file_make({committed.sequence + 1, {}}, settings);
    if (committed.newest < 0 || committed.any_damaged() ||
        bytes.size() > nvram_committed_size(directory)) {
        return ENOSPC;
    }
    const char *const name = nvram_committed_names[slot_to_replace(committed)];
    const int rc = nvram_live_become(directory, boot_id, live, settings, bytes, name);
    return rc == 0 && fsync(directory) != 0 ? errno : rc;
}

std::size_t nvram_committed_size(int directory)
{
    std::size_t size = 0;
    for (const char *name : nvram_committed_names) {
        struct stat found = {};
        if (fstatat(directory, name, &found, AT_SYMLINK_NOFOLLOW) == 0) {
            size = std::max(size, static_cast<std::size_t>(found.st_size));
        }
    }
    return size;
}

bool nvram_committed_drop_older(int directory, const nvram_committed &committed)
{
    if (committed.newest < 0) {
        return false;
    }
    const auto older = static_cast<std::size_t>(1 - committed.newest);
    return !committed.damaged[older] && unlinkat(directory, nvram_committed_names[older], 0) == 0;
}
