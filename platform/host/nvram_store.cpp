#include "nvram_store.h"

#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "host_files.h"

namespace {

constexpr mode_t directory_mode = 0700; // push tokens and keys are nobody else's business

int changes_check(std::span<const nvram_change> changes)
{
    for (const nvram_change &change : changes) {
        const std::string_view value = change.value.value_or(std::string_view{});
        if (!nvram_name_is_valid(change.name) || value.find('\0') != std::string_view::npos) {
            return nvram_bad_name;
        }
        if (value.size() > nvram_value_max) {
            return nvram_value_too_long;
        }
    }
    return 0;
}

const char *live_damage_text(nvram_live_fate fate)
{
    switch (fate) {
    case nvram_live_fate::absent:
    case nvram_live_fate::other_boot:
    case nvram_live_fate::whole:
        break;
    case nvram_live_fate::unfinished:
        return "ends in an unfinished write, which is left out";
    case nvram_live_fate::damaged_end:
        return "is damaged: what was set behind the damage is left out";
    case nvram_live_fate::lost:
        return "is damaged: the last good commit is used";
    }
    return nullptr;
}

} // namespace

nvram_store::nvram_store(std::string directory, std::string boot_id)
    : directory_{std::move(directory)},
      live_path_{directory_ + "/" + nvram_live_name}, boot_id_{std::move(boot_id)}
{
}

/// A line once for as long as it holds, so a daemon that reads on does not fill a log with it.
void nvram_store::report(event what, bool happens, const std::string &text)
{
    bool &reported = reported_[static_cast<std::size_t>(what)];
    if (happens && !reported) {
        std::fprintf(stderr, "nvram: %s%s\n", directory_.c_str(), text.c_str());
    }
    reported = happens;
}

void nvram_store::report_committed(const nvram_committed &committed)
{
    constexpr std::array events{event::committed_0, event::committed_1};
    for (std::size_t i = 0; i < events.size(); ++i) {
        report(events[i], committed.damaged[i],
               std::string{"/"} + nvram_committed_names[i] + " is damaged and left out");
    }
}

void nvram_store::report_load(nvram_live_fate fate, const nvram_committed &committed)
{
    const char *const live_damage = live_damage_text(fate);
    report(event::live, live_damage != nullptr,
           std::string{"/"} + nvram_live_name + " " + (live_damage != nullptr ? live_damage : ""));
    report_committed(committed);
    report(event::nothing_left, fault_ == nvram_all_damaged, ": no good copy is left");
}

int nvram_store::note_fault(int rc)
{
    report(event::unreadable, rc != 0, std::string{": "} + nvram_store_error_text(rc));
    // What was read before still serves: a want of descriptors passes.
    if (!loaded_) {
        fault_ = rc;
    }
    return rc;
}

int nvram_store::load(int directory, lock kind)
{
    nvram_live live;
    nvram_settings settings;
    nvram_live_fate fate{};
    int rc = nvram_live_read(directory, boot_id_, live, settings, fate);
    const bool maybe_being_written = fate == nvram_live_fate::unfinished ||
                                     fate == nvram_live_fate::damaged_end ||
                                     fate == nvram_live_fate::lost;
    if (rc == 0 && maybe_being_written && kind == lock::none &&
        host_file_lock(directory, LOCK_SH) == 0) {
        settings.clear();
        rc = nvram_live_read(directory, boot_id_, live, settings, fate);
    }
    nvram_committed committed;
    if (rc == 0) {
        rc = nvram_committed_read(directory, committed);
    }
    if (rc != 0) {
        return rc;
    }
    const bool nothing_good = !live.usable && committed.newest < 0 &&
                              (committed.any_damaged() || fate == nvram_live_fate::lost);
    fault_ = nothing_good ? nvram_all_damaged : 0;
    settings_ = live.usable ? std::move(settings) : std::move(committed.settings);
    live_ = std::move(live);
    loaded_ = true;
    report_load(fate, committed);
    return 0;
}

int nvram_store::refresh_in(int directory, lock kind)
{
    if (loaded_ && (nvram_live_is_current(live_, live_path_) ||
                    nvram_live_catch_up(live_, live_path_, settings_))) {
        return 0;
    }
    return load(directory, kind);
}

int nvram_store::refresh()
{
    if (watch_.is_quiet()) {
        return 0;
    }
    // Not for the first read: many a process reads once.
    if (loaded_) {
        watch_.begin(directory_);
        if (nvram_live_is_current(live_, live_path_)) {
            watch_.settle();
            return 0;
        }
    }
    int rc = host_directory_make(directory_, directory_mode);
    unique_fd directory;
    if (rc == 0) {
        rc = host_directory_open(directory_, directory);
    }
    if (rc == 0) {
        rc = refresh_in(directory.get(), lock::none);
    }
    return note_fault(rc);
}

/// Opens the directory with the lock held until it is closed, and looks at the newest settings.
int nvram_store::open_locked(unique_fd &directory)
{
    if (const int rc = host_directory_make(directory_, directory_mode); rc != 0) {
        return rc;
    }
    if (const int rc = host_directory_open(directory_, directory); rc != 0) {
        return rc;
    }
    if (const int rc = host_file_lock(directory.get(), LOCK_EX); rc != 0) {
        return rc;
    }
    return refresh_in(directory.get(), lock::held);
}

bool nvram_store::changes_nothing(std::span<const nvram_change> changes) const
{
    return std::all_of(changes.begin(), changes.end(), [this](const nvram_change &change) {
        const auto found = settings_.find(change.name);
        const bool present = found != settings_.end();
        return change.value ? present && found->second == *change.value : !present;
    });
}

const std::string *nvram_store::find(std::string_view name)
{
    refresh();
    const auto found = settings_.find(name);
    return found == settings_.end() ? nullptr : &found->second;
}

const nvram_settings &nvram_store::settings()
{
    refresh();
    return settings_;
}

int nvram_store::fault() const
{
    return fault_;
}

/// Where the live file has no room to become smaller in, as after a boot without one, the older commit
/// has.
int nvram_store::write_live(int directory, std::span<const nvram_change> changes,
                            const nvram_settings &after)
{
    const int rc = nvram_live_write(directory, boot_id_, live_, changes, after);
    if (!host_is_want_of_room(rc) || nvram_settings_size(after) >= nvram_settings_size(settings_)) {
        return rc;
    }
    nvram_committed committed;
    if (nvram_committed_read(directory, committed) != 0 ||
        !nvram_committed_drop_older(directory, committed)) {
        return rc;
    }
    return nvram_live_write(directory, boot_id_, live_, changes, after);
}

/// The older commit makes room only for one that is not longer: two copies are worth more than growth.
int nvram_store::write_committed(int directory, const nvram_committed &committed)
{
    int rc = nvram_committed_write(directory, committed, settings_);
    if (host_is_want_of_room(rc) &&
        nvram_file_make({}, settings_).size() <= nvram_committed_size(directory) &&
        nvram_committed_drop_older(directory, committed)) {
        rc = nvram_committed_write(directory, committed, settings_);
    }
    if (host_is_want_of_room(rc) && nvram_live_shrink(directory, boot_id_, live_, settings_) == 0) {
        rc = nvram_committed_write(directory, committed, settings_);
    }
    return host_is_want_of_room(rc)
               ? nvram_committed_take_live(directory, committed, boot_id_, live_, settings_)
               : rc;
}

int nvram_store::apply(std::span<const nvram_change> changes)
{
    if (const int rc = changes_check(changes); rc != 0) {
        return rc;
    }
    if (refresh() == 0 && changes_nothing(changes)) {
        return 0;
    }
    if (boot_id_.empty()) {
        return nvram_no_boot_id;
    }
    unique_fd directory;
    if (const int rc = open_locked(directory); rc != 0) {
        return rc;
    }
    nvram_settings after = settings_;
    for (const nvram_change &change : changes) {
        nvram_change_apply(after, change);
    }
    if (nvram_settings_size(after) > nvram_total_max) {
        return nvram_too_much;
    }
    const int rc = write_live(directory.get(), changes, after);
    if (rc == 0) {
        settings_ = std::move(after);
        fault_ = 0;
    }
    return rc;
}

int nvram_store::commit()
{
    if (boot_id_.empty()) {
        return nvram_no_boot_id; // the live settings were left out
    }
    unique_fd directory;
    if (const int rc = open_locked(directory); rc != 0) {
        return rc;
    }
    nvram_committed committed;
    if (const int rc = nvram_committed_read(directory.get(), committed); rc != 0) {
        return rc;
    }
    // Never an empty commit in the place of copies that may yet be rescued.
    return fault_ != 0 ? fault_ : write_committed(directory.get(), committed);
}

int nvram_store::revert()
{
    if (boot_id_.empty()) {
        return nvram_no_boot_id;
    }
    unique_fd directory;
    if (const int rc = open_locked(directory); rc != 0) {
        return rc;
    }
    nvram_committed committed;
    if (const int rc = nvram_committed_read(directory.get(), committed); rc != 0) {
        return rc;
    }
    report_committed(committed);
    if (committed.newest < 0 && committed.any_damaged()) {
        return nvram_all_damaged;
    }
    // A live file that could not be read may be readable next time, and must not come back.
    const bool live_is_left_out = live_.file && !live_.usable;
    if (settings_ == committed.settings && !live_is_left_out) {
        return 0;
    }
    const int rc = nvram_live_revert(directory.get(), boot_id_, live_, committed.settings);
    if (rc == 0) {
        settings_ = std::move(committed.settings);
    }
    return rc;
}

const char *nvram_store_error_text(int rc)
{
    switch (rc) {
    case nvram_bad_name:
        return "a name is 1 to 255 bytes without \"=\" and control characters";
    case nvram_value_too_long:
        return "a value holds at most 65536 bytes";
    case nvram_too_much:
        return "the settings would take more than 1 MiB";
    case ETIMEDOUT:
        return "another process keeps the store locked";
    case nvram_no_boot_id:
        return "the kernel's boot id cannot be read";
    case nvram_all_damaged:
        return "the store is damaged, and no good copy is left";
    default:
        return std::strerror(rc);
    }
}
