#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "nvram_format.h"
#include "nvram_live.h"

/// The committed settings: two files of which a commit replaces the older one, so the last finished
/// commit is never touched by the next. The whole one with the higher sequence counts.

inline constexpr std::array nvram_committed_names{"committed.0", "committed.1"};

struct nvram_committed {
    int newest = -1; // index of the copy that counts; -1 without a good one
    std::uint64_t sequence = 0;
    nvram_settings settings;
    std::array<bool, 2> damaged{};

    [[nodiscard]] bool any_damaged() const
    {
        return damaged[0] || damaged[1];
    }
};

/// Reads both copies; 0, or why one of them cannot be opened or read.
[[nodiscard]] int nvram_committed_read(int directory, nvram_committed &committed);

/// Makes `settings` the committed ones: on 0 they survive a power cut; on another value either they
/// or those of the earlier commit do. A damaged copy that has to make room is kept beside as
/// "<name>.damaged". Needs the lock, and what read gave under it.
[[nodiscard]] int nvram_committed_write(int directory, const nvram_committed &committed,
                                        const nvram_settings &settings);

/// The same without any room: the live file becomes the new copy. ENOSPC when the other copy is
/// shorter: later that one is the room in which the settings become smaller. Needs the lock, and
/// what read gave under it.
[[nodiscard]] int nvram_committed_take_live(int directory, const nvram_committed &committed,
                                            const std::string &boot_id, nvram_live &live,
                                            const nvram_settings &settings);

/// The length of the longer copy.
[[nodiscard]] std::size_t nvram_committed_size(int directory);

/// Takes away the copy that does not count, for room that a full disk has not: the one that counts is
/// whole. False when there is none to take. Needs the lock.
[[nodiscard]] bool nvram_committed_drop_older(int directory, const nvram_committed &committed);
