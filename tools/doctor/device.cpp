#include <nvram.h>

#include <ctime>
#include <string>

#include "cutils/interface_addresses.h"
#include "cutils/moment.h"
#include "handles/malloc.h"
#include "tools/doctor/checks.h"
#include "tools/status/problems.h"

namespace {

/// A setting of our own, so that no other one changes.
constexpr char nvram_probe[] = "zelkad_doctor";

bool is_set(const char *name)
{
    const malloc_text value{nvram_unf_get(name)};
    return value != nullptr && *value != '\0';
}

/// What a daemon would log with.
control_status log_settings_of(const doctor_subject &subject)
{
    control_status status{};
    const cJSON *pair = nullptr;
    cJSON_ArrayForEach(pair, subject.config.other_pairs.get())
    {
        status.settings.push_back({pair->string, pair->valuestring, "file"});
    }
    const malloc_text level{nvram_unf_get("zelkad_debug_level")};
    if (level != nullptr && *level != '\0') {
        status.settings.insert(status.settings.begin(), {"logger.level", level.get(), "nvram"});
    }
    return status;
}

} // namespace

void doctor_check_clock(const doctor_subject &, doctor_report &report)
{
    if (!velm_clock_was_set(std::time(nullptr))) {
        report.fail("clock: it shows a time before 2025, so it was never set",
                    "Set the clock, by NTP for example: certificates and tokens depend on it.");
    } else {
        report.ok("clock: it was set");
    }
}

void doctor_check_nvram(const doctor_subject &subject, doctor_report &report)
{
    if (!doctor_sees_nvram(subject)) {
        report.warn("nvram: it is not for this user, or holds nothing of the radios",
                    "Run velmctl doctor as the daemon's user, or as root.");
        return;
    }
    if (!is_set("wl_radio_num")) {
        report.warn("nvram: it cannot be read, or holds nothing of the radios",
                    "Set wl_radio_num, wlN_maxssid and wlN_hwaddr, as velmd.conf(5) says.");
    }
    // Written for good only when somebody commits; an empty setting is as good as none.
    const bool is_written = nvram_set(nvram_probe, "1") == 0 && nvram_set(nvram_probe, "") == 0;
    if (is_written) {
        report.ok("nvram: it can be written");
    } else if (subject.is_root) {
        report.fail("nvram: it cannot be written, so no phone can be paired",
                    "Look at the store: its file system may be full, read-only or missing.");
    } else {
        report.warn("nvram: this user may not write it",
                    "Run velmctl doctor as the daemon's user, or as root.");
    }
}

void doctor_check_log(const doctor_subject &subject, doctor_report &report)
{
    const std::string problem = subject.daemon.has_value()
                                    ? velmctl_status_log_warning(*subject.daemon)
                                    : velmctl_status_log_warning(log_settings_of(subject));
    if (!problem.empty()) {
        report.warn("log: " + problem,
                    "Set the level to info, in logger.level or in nvram as zelkad_debug_level, "
                    "reload the daemon, and remove the log.");
    }
}

void doctor_check_lan(const doctor_subject &subject, doctor_report &report)
{
    const std::string name = subject.config.lan_name;
    if (!subject.daemon.has_value() && !doctor_sees_nvram(subject)) {
        report.warn("LAN: which interface it is stands in nvram, which is not for this user",
                    "Run velmctl doctor as root.");
        return;
    }
    if (subject.lan_address.empty()) {
        report.fail(
            "LAN: the interface " + name + " has no IPv4 address",
            "Give it one. In nvram the bridge is the lanN_ifname whose lanN_ifnames has wl0.");
        return;
    }
    const unsigned index = interface_with_address(subject.lan_address.c_str(), name.c_str());
    if (index == 0) {
        report.fail("LAN: no interface has the address " + subject.lan_address,
                    "Give it to the interface " + name + ", or start the daemon with another -i.");
    } else {
        report.ok("LAN: " + name + " has the address " + subject.lan_address);
    }
}

void doctor_check_bssids(const doctor_subject &subject, doctor_report &report)
{
    const int count = cJSON_GetArraySize(subject.config.bssids_list.get());
    if (count == 0 && !doctor_sees_nvram(subject)) {
        report.warn("BSSIDs: nvram is not for this user", "Run velmctl doctor as root.");
    } else if (count == 0) {
        report.fail("BSSIDs: the platform gives none, so every location is refused",
                    "Set wl_radio_num, wlN_maxssid and wlN_hwaddr in nvram.");
    } else {
        report.ok("BSSIDs: the platform gives " + std::to_string(count));
    }
}
