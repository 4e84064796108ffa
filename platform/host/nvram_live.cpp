#include "nvram_live.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "host_files.h"

namespace {

/// The file may hold the settings twice and this much more before it is written anew.
constexpr std::size_t slack = 256 * 1024;

/// The stat of `path` when the file we hold is still the one there.
bool live_stat(const nvram_live &live, const std::string &path, struct stat &now)
{
    return live.file && stat(path.c_str(), &now) == 0 && now.st_dev == live.device &&
           now.st_ino == live.inode;
}

/// Notes which file it is that we hold.
int live_identify(nvram_live &live, struct stat &found)
{
    if (fstat(live.file.get(), &found) != 0) {
        return errno;
    }
    live.device = found.st_dev;
    live.inode = found.st_ino;
    live.seen = found.st_size;
    return 0;
}

nvram_live_fate fate_of(nvram_log_end end)
{
    switch (end) {
    case nvram_log_end::clean:
        return nvram_live_fate::whole;
    case nvram_log_end::unfinished:
        return nvram_live_fate::unfinished;
    case nvram_log_end::damaged:
        break;
    }
    return nvram_live_fate::damaged_end;
}

nvram_live_fate live_parse(const host_bytes &bytes, const std::string &boot_id, nvram_live &live,
                           nvram_settings &settings)
{
    const auto header = nvram_header_parse(bytes);
    if (!header) {
        return nvram_live_fate::lost;
    }
    if (header->boot_id != boot_id) {
        return nvram_live_fate::other_boot;
    }
    const auto read = nvram_records_apply(std::span{bytes}.subspan(nvram_header_size), settings);
    if (read.records == 0) {
        return nvram_live_fate::lost;
    }
    live.usable = true;
    live.parsed = static_cast<off_t>(nvram_header_size + read.bytes);
    return fate_of(read.end);
}

int live_append(int directory, nvram_live &live, const host_bytes &record)
{
    const unique_fd file{openat(directory, nvram_live_name,
                                O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)};
    if (!file) {
        return errno;
    }
    const int rc = host_file_write(file.get(), record);
    if (rc == 0) {
        live.parsed += static_cast<off_t>(record.size());
        live.seen = live.parsed;
    }
    return rc;
}

/// `more` counts too: one call may name a setting many times, which makes a record longer than all
/// settings, and a file beyond nvram_file_max would be taken for a damaged one.
bool live_has_room(const nvram_live &live, std::size_t more, std::size_t settings_size)
{
    return static_cast<std::size_t>(live.parsed) + more < 2 * settings_size + slack;
}

} // namespace

int nvram_live_read(int directory, const std::string &boot_id, nvram_live &live,
                    nvram_settings &settings, nvram_live_fate &fate)
{
    live = {};
    fate = nvram_live_fate::absent;
    live.file.reset(
        openat(directory, nvram_live_name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!live.file && errno == ENOENT) {
        return 0;
    }
    fate = nvram_live_fate::lost;
    if (!live.file) {
        return errno == ELOOP ? 0 : errno;
    }
    struct stat found = {};
    if (const int rc = live_identify(live, found); rc != 0) {
        return rc;
    }
    if (!S_ISREG(found.st_mode) || found.st_size > nvram_file_max) {
        return 0;
    }
    host_bytes bytes;
    const int rc = host_file_read(live.file.get(), 0, found.st_size, bytes);
    if (rc != 0) {
        return rc == EIO ? 0 : rc;
    }
    fate = live_parse(bytes, boot_id, live, settings);
    return 0;
}

bool nvram_live_is_current(const nvram_live &live, const std::string &path)
{
    struct stat now = {};
    if (!live.file) {
        return stat(path.c_str(), &now) != 0 && errno == ENOENT;
    }
    return live_stat(live, path, now) && now.st_size == live.seen;
}

bool nvram_live_catch_up(nvram_live &live, const std::string &path, nvram_settings &settings)
{
    struct stat now = {};
    if (!live.usable || live.parsed != live.seen || !live_stat(live, path, now) ||
        now.st_size <= live.seen || now.st_size > nvram_file_max) {
        return false;
    }
    host_bytes bytes;
    if (host_file_read(live.file.get(), live.parsed, now.st_size, bytes) != 0) {
        return false;
    }
    const nvram_log_read read = nvram_records_apply(bytes, settings);
    live.parsed += static_cast<off_t>(read.bytes);
    live.seen = now.st_size;
    return live.parsed == live.seen;
}

int nvram_live_write(int directory, const std::string &boot_id, nvram_live &live,
                     std::span<const nvram_change> changes, const nvram_settings &settings)
{
    host_bytes record;
    nvram_record_append(record, changes);
    if (live.usable && live.parsed == live.seen &&
        live_has_room(live, record.size(), nvram_settings_size(settings))) {
        return live_append(directory, live, record);
    }
    return nvram_live_replace(directory, boot_id, live, settings);
}

int nvram_live_replace(int directory, const std::string &boot_id, nvram_live &live,
                       const nvram_settings &settings)
{
    const host_bytes bytes = nvram_file_make({0, boot_id}, settings);
    unique_fd file;
    if (const int rc = host_file_replace(directory, nvram_live_name, bytes, file); rc != 0) {
        return rc;
    }
    live = {};
    live.file = std::move(file);
    struct stat made = {};
    if (const int rc = live_identify(live, made); rc != 0) {
        return rc;
    }
    live.parsed = live.seen;
    live.usable = true;
    return 0;
}
