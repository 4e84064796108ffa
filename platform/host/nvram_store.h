#pragma once

#include <array>
#include <span>
#include <string>
#include <string_view>

#include "nvram_committed.h"
#include "nvram_format.h"
#include "nvram_live.h"
#include "nvram_watch.h"

/// What is the store's own to refuse. No errno values: a file system has a use for each of those.
enum nvram_refusal {
    nvram_bad_name = -1,       // or a value with a NUL
    nvram_value_too_long = -2, // beyond nvram_value_max
    nvram_too_much = -3,       // all beyond nvram_total_max
    nvram_no_boot_id = -4,
    nvram_all_damaged = -5, // no good copy is left
};

/// Settings in a directory, shared by all processes of the machine. What one process sets, every
/// other sees with its next read; what is committed survives a power cut, the rest does not.
///
/// In the directory: "live" (nvram_live.h), "committed.0" and "committed.1" (nvram_committed.h).
/// Writers take turns by flock() on the directory itself; readers take no lock. A writer that is
/// killed leaves the settings as they were or as it wanted them; on a full disk it may leave those of the
/// last commit. Neither a change that makes the settings smaller nor its commit needs room. Damage is
/// reported on standard error, once while it lasts, and what is good is used.
///
/// A read costs a question to the kernel whether anything has changed, and a look-up; the files are
/// parsed only when they changed. One thread.
///
/// Functions that return `int` give 0, an errno value or one of nvram_refusal, and on failure nothing
/// has changed. ETIMEDOUT: another process keeps the lock.
class nvram_store {
  public:
    /// An empty boot id means that boots cannot be told apart: then nothing can be set,
    /// committed or reverted.
    nvram_store(std::string directory, std::string boot_id);

    /// Null when the setting is absent. Good until the next call.
    [[nodiscard]] const std::string *find(std::string_view name);

    /// All settings. Good until the next call.
    [[nodiscard]] const nvram_settings &settings();

    /// Why the last read had nothing to look at: 0, nvram_all_damaged when damage left nothing good, or what the
    /// file system said.
    [[nodiscard]] int fault() const;

    /// Applies all changes or, on failure, none. Writes nothing when they change nothing.
    [[nodiscard]] int apply(std::span<const nvram_change> changes);

    [[nodiscard]] int commit();

    /// Goes back to the last commit, as a power cut would.
    [[nodiscard]] int revert();

  private:
    enum class event { unreadable, live, committed_0, committed_1, nothing_left };
    enum class lock { none, held };

    int refresh();
    int refresh_in(int directory, lock kind);
    int load(int directory, lock kind);
    int open_locked(unique_fd &directory);
    int note_fault(int rc);
    void report(event what, bool happens, const std::string &text);
    void report_committed(const nvram_committed &committed);
    void report_load(nvram_live_fate fate, const nvram_committed &committed);
    int write_live(int directory, std::span<const nvram_change> changes,
                   const nvram_settings &after);
    int write_committed(int directory, const nvram_committed &committed);
    [[nodiscard]] bool changes_nothing(std::span<const nvram_change> changes) const;

    std::string directory_;
    std::string live_path_;
    std::string boot_id_;
    bool loaded_ = false;
    int fault_ = 0;
    nvram_live live_;
    nvram_watch watch_;
    nvram_settings settings_;
    std::array<bool, 5> reported_{};
};

/// What such a value means, in words.
const char *nvram_store_error_text(int rc);

/// The store of the environment variable VELM_NVRAM, by default /var/lib/velmd/nvram.
nvram_store &nvram_store_of_environment();
