#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <span>
#include <string>

#include "handles/fd.h"
#include "nvram_format.h"

/// The live file: the settings as every process sees them now, committed or not. It bears the id of
/// the boot that made it, so after a power cut it is known to be of an earlier boot and is left out.
///
/// It is appended to or replaced by a rename, and who has read it keeps it open, so its inode cannot
/// come back under another content. Only where the disk has no room for a second file it is written
/// anew in its place, and its header's sequence then counts one more: same inode, same sequence and same
/// size is the same content.

inline constexpr char nvram_live_name[] = "live";

/// Longer than any file this store writes; a longer one is damaged.
inline constexpr off_t nvram_file_max = 4 * 1024 * 1024;

struct nvram_live {
    unique_fd file; // none: there was no live file
    dev_t device = 0;
    ino_t inode = 0;
    timespec modified = {};
    std::optional<std::uint64_t> sequence; // none: it has no whole header
    off_t parsed = 0;                      // up to here it is read
    off_t seen = 0;      // its size then; more than `parsed` when the end is no whole record
    bool usable = false; // of this boot, and at least its first record is whole
};

enum class nvram_live_fate {
    absent,      // there is none
    other_boot,  // left out
    whole,       // read to its end
    unfinished,  // all but an unfinished record at the end
    damaged_end, // up to the damage
    lost,        // nothing of it can be used
};

/// Reads the live file; 0, or why it cannot be opened or read. `settings` holds the result when
/// `live` is usable.
[[nodiscard]] int nvram_live_read(int directory, const std::string &boot_id, nvram_live &live,
                                  nvram_settings &settings, nvram_live_fate &fate);

/// True while the file at `path` holds just what was read.
[[nodiscard]] bool nvram_live_is_current(const nvram_live &live, const std::string &path);

/// Applies what was appended since, when that is all that happened; else false, and `settings`
/// counts no more.
[[nodiscard]] bool nvram_live_catch_up(nvram_live &live, const std::string &path,
                                       nvram_settings &settings);

/// Writes the changes that lead to `settings`: a record at the end of the file, or a new file when
/// the present one is not of this boot, not whole or grown long. On a full disk the file is written anew
/// in its place, when it does not become longer: who is killed meanwhile takes all back to the last
/// commit. Needs the lock.
[[nodiscard]] int nvram_live_write(int directory, const std::string &boot_id, nvram_live &live,
                                   std::span<const nvram_change> changes,
                                   const nvram_settings &settings);

/// Makes the file as short as these settings, which it holds, can be. Needs the lock.
[[nodiscard]] int nvram_live_shrink(int directory, const std::string &boot_id, nvram_live &live,
                                    const nvram_settings &settings);

/// Gives the file, whose settings these are, other bytes and another name, and syncs it: on a full
/// disk a commit finds no other room. Then there is no live file. Without that room nothing is done;
/// after another failure the file is as it was, if it can be written. Who is killed meanwhile takes
/// all back to the last commit. Needs the lock.
[[nodiscard]] int nvram_live_become(int directory, const std::string &boot_id, nvram_live &live,
                                    const nvram_settings &settings,
                                    std::span<const std::uint8_t> bytes, const char *name);

/// Makes the committed settings count again, which are these. On a full disk it leaves no more of the
/// file than a header that says so. Needs the lock.
[[nodiscard]] int nvram_live_revert(int directory, const std::string &boot_id, nvram_live &live,
                                    const nvram_settings &settings);
