#include "tools/doctor/subject.h"

#include <fcntl.h>
#include <nvram.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "conffile/conffile.h"
#include "cutils/interface_addresses.h"
#include "handles/malloc.h"
#include "tools/control/document.h"
#include "tools/control/exchange.h"
#include "tools/control/fetch.h"
#include "tools/control/place.h"
#include "tools/doctor/info.h"
#include "tools/doctor/process.h"
#include "velm_config.h"
#include "velm_nvram_config.h"
#include "velm_sys_params.h"

namespace {

void load_configuration(doctor_subject &subject)
{
    velm_config_set_defaults(&subject.config);
    conffile_ptr file =
        subject.config_path.empty() ? nullptr : conffile_parse(subject.config_path.c_str());
    if (file != nullptr) {
        errno = 0; // a stale one would keep the numbers from being stored
        velm_config_load_pairs(&subject.config, file);
    }
    velm_nvram_config_load(&subject.config);
    subject.config.bssids_list = sys_bssids();
}

template <std::size_t Size>
void override_text(char (&field)[Size], const std::optional<std::string> &text)
{
    if (text.has_value() && !text->empty()) {
        velm_config_copy_text(field, Size, text->c_str());
    }
}

void ask_platform(doctor_subject &subject)
{
    override_text(subject.config.lan_name, get_lanif_name_wlif());
    override_text(subject.config.lan_ip_address, get_ipv4_address_wlif());
    subject.lan_address = velm_config_lan_ip_address(&subject.config);
}

/// What the command line gave to the daemon is known to it alone.
void take_lan_of_daemon(doctor_subject &subject)
{
    const control_lan &lan = subject.daemon->lan;
    override_text(subject.config.lan_name, lan.interface);
    subject.lan_address = lan.address.value_or(subject.lan_address);
}

std::optional<control_status> ask_daemon(const velmctl_options &options, std::string &problem)
{
    const control_place place = control_place_find(options.control_path, options.config_path);
    if (place.path.empty()) {
        problem = place.problem;
        return std::nullopt;
    }
    const velmctl_answer answer = control_ask(place.path, "/v1/status", control_time);
    if (answer.result == control_result::unreachable) {
        problem = "it does not run, or not for this user: " + place.path + ": " + answer.why;
        return std::nullopt;
    }
    if (!control_is_good(answer)) {
        problem = "it does not say how it is: " +
                  (answer.why.empty() ? "status " + std::to_string(answer.status) : answer.why);
        return std::nullopt;
    }
    const json_ptr document = control_document_parse(answer.body, problem);
    control_status status =
        document == nullptr ? control_status{} : control_status_read(document.get(), problem);
    return problem.empty() ? std::optional{std::move(status)} : std::nullopt;
}

/// Without a daemon that answers nobody knows whose it is.
bool is_user_of(const control_status &status)
{
    struct stat process {};
    return stat(("/proc/" + std::to_string(status.daemon.pid)).c_str(), &process) == 0 &&
           process.st_uid == geteuid();
}

/// An address of the daemon's that nobody has here is on another network too: the daemon of another user
/// does not let us look at its own.
bool is_in_other_network(const doctor_subject &subject)
{
    if (subject.process.has_value()) {
        const doctor_network network = doctor_network_of(*subject.process);
        if (network != doctor_network::unknown) {
            return network == doctor_network::other;
        }
    }
    const auto address =
        subject.daemon.has_value() ? subject.daemon->lan.address : std::optional<std::string>{};
    return address.has_value() && interface_with_address(address->c_str(), "") == 0;
}

bool is_shut(const std::string &path)
{
    return !path.empty() && faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) != 0 &&
           errno == EACCES;
}

} // namespace

doctor_subject doctor_look_at(const velmctl_options &options)
{
    doctor_subject subject;
    subject.config_path = options.config_path.value_or(control_default_config);
    subject.is_config_asked_for = options.config_path.has_value();
    subject.offline = options.offline;
    subject.is_root = geteuid() == 0;
    load_configuration(subject);
    subject.daemon = ask_daemon(options, subject.no_daemon);
    subject.is_privy =
        subject.is_root || (subject.daemon.has_value() && is_user_of(*subject.daemon));
    subject.process = subject.daemon.has_value()
                          ? doctor_process_if_daemon(static_cast<pid_t>(subject.daemon->daemon.pid))
                          : doctor_find_process(subject.config_path);
    subject.is_config_shut = !subject.is_privy && is_shut(subject.config_path);
    subject.is_elsewhere = is_in_other_network(subject);
    if (!subject.is_elsewhere) {
        ask_platform(subject);
    }
    if (subject.daemon.has_value()) {
        take_lan_of_daemon(subject);
    }
    if (!subject.daemon.has_value() && !subject.is_elsewhere) {
        const doctor_info info = doctor_ask_info(subject.config, subject.lan_address);
        subject.answers_as_ours = info.certificate == doctor_certificate::of_file;
    }
    return subject;
}

bool doctor_is_running(const doctor_subject &subject)
{
    return subject.daemon.has_value() || subject.process.has_value() || subject.answers_as_ours;
}

bool doctor_sees_nvram(const doctor_subject &subject)
{
    const malloc_text value{nvram_unf_get("wl_radio_num")};
    return subject.is_privy || (value != nullptr && *value != '\0');
}
