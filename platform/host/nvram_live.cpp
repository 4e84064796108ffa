#include "nvram_live.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "host_files.h"

namespace {

/// The file may hold the settings twice and this much more before it is written anew.
constexpr std::size_t slack = 256 * 1024;

/// In the place of a boot's id, in a file that holds nothing any more.
constexpr char left_out_boot_id[] = "none";

/// The stat of `path` when the file we hold is still the one there.
bool live_stat(const nvram_live &live, const std::string &path, struct stat &now)
{
    return live.file && stat(path.c_str(), &now) == 0 && now.st_dev == live.device &&
           now.st_ino == live.inode;
}

/// The sequence of the file as it is now; none while it is written in its place.
std::optional<std::uint64_t> sequence_now(const nvram_live &live)
{
    host_bytes bytes;
    if (host_file_read(live.file.get(), 0, nvram_header_size, bytes) != 0) {
        return std::nullopt;
    }
    const auto header = nvram_header_parse(bytes);
    return header && !header->boot_id.empty() ? std::optional{header->sequence} : std::nullopt;
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
    live.modified = found.st_mtim;
    return 0;
}

/// What is no whole record at the end may be cut off, and others come to the same size.
bool is_same_end(const nvram_live &live, const struct stat &now)
{
    return live.parsed == live.seen || (now.st_mtim.tv_sec == live.modified.tv_sec &&
                                        now.st_mtim.tv_nsec == live.modified.tv_nsec);
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
    // Of no boot at all it is about to become a commit.
    if (!header || header->boot_id.empty()) {
        return nvram_live_fate::lost;
    }
    live.sequence = header->sequence;
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

bool file_shorten(int file, off_t length)
{
    return ftruncate(file, length) == 0;
}

int live_append(int directory, nvram_live &live, const host_bytes &record)
{
    const unique_fd file{openat(directory, nvram_live_name,
                                O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)};
    if (!file) {
        return errno;
    }
    const int rc = host_file_write(file.get(), record);
    if (rc != 0) {
        // What a full disk has cut off is nothing that anybody should be told of.
        file_shorten(file.get(), live.parsed);
    } else {
        live.parsed += static_cast<off_t>(record.size());
        live.seen = live.parsed;
    }
    return rc;
}

int file_write_at(int file, std::span<const std::uint8_t> bytes, off_t at)
{
    if (lseek(file, at, SEEK_SET) != at) {
        return errno;
    }
    return host_file_write(file, bytes);
}

/// What stands behind the header first, so that whoever finds the new sequence finds all of it.
int file_write_in_place(int file, std::span<const std::uint8_t> bytes)
{
    int rc = file_write_at(file, bytes.subspan(nvram_header_size), nvram_header_size);
    if (rc == 0 && !file_shorten(file, static_cast<off_t>(bytes.size()))) {
        rc = errno;
    }
    return rc == 0 ? file_write_at(file, bytes.first(nvram_header_size), 0) : rc;
}

/// A file system that never writes over what it holds may want room for that too; then what is there goes
/// first.
int live_write_in_place(int directory, nvram_live &live, std::span<const std::uint8_t> bytes)
{
    const unique_fd file{
        openat(directory, nvram_live_name, O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)};
    if (!file) {
        return errno;
    }
    int rc = file_write_in_place(file.get(), bytes);
    if (host_is_want_of_room(rc) && file_shorten(file.get(), 0)) {
        rc = file_write_in_place(file.get(), bytes);
    }
    if (rc != 0) {
        live.seen = -1; // to be read again
        return rc;
    }
    live.sequence = live.sequence.value_or(0) + 1;
    live.parsed = live.seen = static_cast<off_t>(bytes.size());
    return 0;
}

/// The bytes of a live file with these settings that takes the place of `live` in the same file.
host_bytes live_bytes(const nvram_live &live, const std::string &boot_id,
                      const nvram_settings &settings)
{
    return nvram_file_make({live.sequence.value_or(0) + 1, boot_id}, settings);
}

/// Nothing but a header of no boot: the file is left out.
int live_leave_out(int directory, nvram_live &live)
{
    host_bytes header;
    nvram_header_append(header, {live.sequence.value_or(0) + 1, left_out_boot_id});
    const unique_fd file{
        openat(directory, nvram_live_name, O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)};
    if (!file) {
        return errno;
    }
    // The header first: with it alone everything behind counts no more.
    const int rc = file_write_at(file.get(), header, 0);
    if (rc != 0) {
        return rc;
    }
    file_shorten(file.get(), nvram_header_size);
    live.sequence = live.sequence.value_or(0) + 1;
    live.parsed = live.seen = nvram_header_size;
    live.usable = false;
    return 0;
}

/// Who still holds the old file open would keep its room taken.
void old_file_empty(const unique_fd &old)
{
    if (old) {
        file_shorten(old.get(), 0);
    }
}

int live_replace(int directory, const std::string &boot_id, nvram_live &live,
                 const nvram_settings &settings)
{
    const unique_fd old{
        openat(directory, nvram_live_name, O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)};
    const host_bytes bytes = nvram_file_make({0, boot_id}, settings);
    unique_fd file;
    if (const int rc = host_file_replace(directory, nvram_live_name, bytes, file); rc != 0) {
        return rc;
    }
    old_file_empty(old);
    live = {};
    live.file = std::move(file);
    struct stat made = {};
    if (const int rc = live_identify(live, made); rc != 0) {
        return rc;
    }
    live.sequence = 0;
    live.parsed = live.seen;
    live.usable = true;
    return 0;
}

/// A new file where there is room for it, else the present one written anew.
int live_write_whole(int directory, const std::string &boot_id, nvram_live &live,
                     const nvram_settings &settings)
{
    const int rc = live_replace(directory, boot_id, live, settings);
    if (!host_is_want_of_room(rc) || !live.file) {
        return rc;
    }
    if (!live.usable) { // nobody's settings are in it, so what it takes is room
        const int left_out = live_leave_out(directory, live);
        return left_out == 0 ? live_replace(directory, boot_id, live, settings) : rc;
    }
    const host_bytes bytes = live_bytes(live, boot_id, settings);
    return static_cast<off_t>(bytes.size()) <= live.seen
               ? live_write_in_place(directory, live, bytes)
               : rc;
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
    if (fate == nvram_live_fate::whole && static_cast<off_t>(bytes.size()) < found.st_size) {
        fate = nvram_live_fate::unfinished; // it became shorter while it was read
    }
    return 0;
}

bool nvram_live_is_current(const nvram_live &live, const std::string &path)
{
    struct stat now = {};
    if (!live.file) {
        return stat(path.c_str(), &now) != 0 && errno == ENOENT;
    }
    return live_stat(live, path, now) && now.st_size == live.seen && is_same_end(live, now) &&
           sequence_now(live) == live.sequence;
}

bool nvram_live_catch_up(nvram_live &live, const std::string &path, nvram_settings &settings)
{
    struct stat now = {};
    if (!live.usable || live.parsed != live.seen || !live_stat(live, path, now) ||
        now.st_size <= live.seen || now.st_size > nvram_file_max) {
        return false;
    }
    host_bytes bytes;
    if (host_file_read(live.file.get(), live.parsed, now.st_size, bytes) != 0 ||
        sequence_now(live) != live.sequence) {
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
        const int rc = live_append(directory, live, record);
        if (!host_is_want_of_room(rc)) {
            return rc;
        }
    }
    return live_write_whole(directory, boot_id, live, settings);
}

int nvram_live_shrink(int directory, const std::string &boot_id, nvram_live &live,
                      const nvram_settings &settings)
{
    if (live.file && !live.usable) {
        return live_leave_out(directory, live);
    }
    const host_bytes bytes = live_bytes(live, boot_id, settings);
    return live.file && static_cast<off_t>(bytes.size()) < live.seen
               ? live_write_in_place(directory, live, bytes)
               : ENOSPC;
}

int nvram_live_become(int directory, const std::string &boot_id, nvram_live &live,
                      const nvram_settings &settings, std::span<const std::uint8_t> bytes,
                      const char *name)
{
    if (!live.file || !live.usable || static_cast<off_t>(bytes.size()) > live.seen) {
        return ENOSPC;
    }
    const unique_fd file{
        openat(directory, nvram_live_name, O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)};
    if (!file) {
        return errno;
    }
    int rc = file_write_in_place(file.get(), bytes);
    if (rc == 0 &&
        (fsync(file.get()) != 0 || renameat(directory, nvram_live_name, directory, name) != 0)) {
        rc = errno;
    }
    if (rc == 0) {
        live = {};
    } else if (live_write_in_place(directory, live, live_bytes(live, boot_id, settings)) != 0) {
        live.seen = -1; // to be read again
    }
    return rc;
}

int nvram_live_revert(int directory, const std::string &boot_id, nvram_live &live,
                      const nvram_settings &settings)
{
    const int rc = live_replace(directory, boot_id, live, settings);
    return host_is_want_of_room(rc) && live.file ? live_leave_out(directory, live) : rc;
}
