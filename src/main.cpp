#include <event2/event.h>
#include <nvram.h>
#include <sched.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "async/common_async.h"
#include "conffile/conffile.h"
#include "config/file_notes.h"
#include "config/settings.h"
#include "control/server.h"
#include "control/status.h"
#include "crypto/library.h"
#include "cutils/common_netlink.h"
#include "handles/libevent.h"
#include "handles/malloc.h"
#include "http/http_client.h"
#include "http_server/key_file.h"
#include "lan/lan.h"
#include "lan/query.h"
#include "logger/fatal.h"
#include "metrics/metrics.h"
#include "process/check_program.h"
#include "process/command_line.h"
#include "process/detach.h"
#include "process/notify.h"
#include "process/pid_file.h"
#include "process/prepare.h"
#include "process/version.h"
#include "story/view.h"
#include "velm_attestation_engine.h"
#include "velm_challenge_engine.h"
#include "velm_cloud_messaging.h"
#include "velm_config.h"
#include "velm_google_auth.h"
#include "velm_main.h"
#include "velm_nvram_config.h"
#include "velm_nvram_pairings.h"
#include "velm_request_assert_check.h"
#include "velm_request_device_check.h"
#include "velm_request_pairing_check.h"
#include "velm_request_preprocessor.h"
#include "velm_request_user_pass_check.h"
#include "velm_sys_params.h"
#include "velm_utils.h"

namespace {

constexpr char log_category[] = "main";

constexpr char default_config_path[] = "/etc/afc/velmd/velmd.conf";
constexpr int exit_no_https_client = 2;

/// Lives as long as the process; nothing is torn down.
struct process_state {
    velm_command_line command_line;
    std::string config_path;
    unsigned told_bad_line = 0; // of the configuration file; it is told once
    velm_pid_file pid_file;     // locked while the process lives
    std::unique_ptr<velm_config> config;
    event_base_ptr base;
    event_ptr event_sighup;
    bool reloads_again = false; // asked for while one waits for the LAN address
};
process_state process;

bool is_disabled_by_nvram()
{
    std::uint16_t mode = 1;
    velm_nvram_config_read_number("zelkad_mode", &mode, 0);
    return mode == 0;
}

/// To a supervisor the end of a service that was never ready is a failure.
void tell_switched_off()
{
    process_notify_status("Switched off: zelkad_mode is 0 in nvram");
    process_notify_ready();
}

void set_log_level_from_nvram()
{
    const malloc_text level{nvram_unf_get("zelkad_debug_level")};
    if (level != nullptr && *level != '\0') {
        common_logger_set("level", level.get());
        velm_config &config = *process.config;
        velm_config_copy_text(config.log_level, sizeof config.log_level, level.get());
    }
}

/// A file that is left out is the one that would have turned the log on, so nobody would learn of it.
void tell_of_bad_line(unsigned line)
{
    if (line != 0 && line != process.told_bad_line) {
        LOG_REASON(LOG_LEVEL_WARN, "%s - %s: line %u is no key=value pair: the defaults stand",
                   "update_config", process.config_path.c_str(), line);
    }
    process.told_bad_line = line;
}

void load_defaults_and_file()
{
    velm_config_set_defaults(process.config.get());
    if (!process.config_path.empty()) {
        velm_config_load_from_file(process.config.get(), process.config_path.c_str());
        tell_of_bad_line(conffile_bad_line());
    }
}

/// Command line first, then the platform, when each has something to say.
template <std::size_t Size>
void override_text(char (velm_config::*field)[Size], const std::optional<std::string> &command_line,
                   const std::optional<std::string> &platform)
{
    velm_config &config = *process.config;
    if (command_line) {
        velm_config_copy_text(config.*field, Size, command_line->c_str());
        config_source_of(config, field) = config_source::command_line;
    }
    if (platform && !platform->empty()) {
        velm_config_copy_text(config.*field, Size, platform->c_str());
        config_source_of(config, field) = config_source::platform;
    }
}

/// The platform's list always takes the place of the command line's.
void override_bssids(velm_config &config)
{
    if (process.command_line.bssids) {
        config.bssids_list = velm_split_string(process.command_line.bssids->c_str(), ",");
    }
    json_ptr bssids = sys_bssids();
    if (bssids == nullptr) {
        fatal_null_reference(log_category, __FILE__, __LINE__, "update_config", "sys_bssids");
    }
    config.bssids_list = std::move(bssids);
}

void prepare_https_client()
{
    http_client_prepare_ssl(process.config->http_client_ca_cert_path);
}

/// What takes milliseconds and needs no LAN address, while the command that prints it runs. That is three
/// programs, which may have no core but ours: they would wait for the end of our time slice.
void prepare_servers()
{
    crypto_library_init();
    sched_yield();
    prepare_https_client();
    sched_yield();
    if (process.config->http_server_port != 0) {
        http_key_file_prepare(process.config->http_server_key_path);
    }
    sched_yield();
    velm_attestation_engine_prepare();
}

void load_settings()
{
    load_defaults_and_file();
    set_log_level_from_nvram();
    velm_nvram_config_load(process.config.get());
}

/// What is known of the access point itself; with load_settings it rebuilds the whole record in
/// place, later sources over earlier ones.
void identify_access_point(const velm_lan_answer &lan)
{
    const velm_command_line &given = process.command_line;
    override_text(&velm_config::lan_ip_address, given.lan_ip_address, lan.addresses);
    override_text(&velm_config::lan_name, given.lan_name, get_lanif_name_wlif());
    override_text(&velm_config::serial_number, given.serial_number, sys_serial_number());
    override_text(&velm_config::mac_address, given.mac_address, sys_mac_address());
    override_bssids(*process.config);
    velm_config_print_to_log(process.config.get());
}

void set_up_https_client()
{
    const char *const ca_path = process.config->http_client_ca_cert_path;
    if (http_client_setup_ssl(ca_path) != 0) {
        LOG_REASON(LOG_LEVEL_ERROR, "%s - ends with status %d: no authorities can be read from %s",
                   __func__, exit_no_https_client, ca_path);
        process_notify_status("Ended: no authorities can be read from %s", ca_path);
        // On a reload the loop runs below this call: taking the modules' objects apart around it,
        // in no certain order, must not decide how the process ends.
        std::fflush(nullptr);
        std::_Exit(exit_no_https_client);
    }
    file_note_set("http.client.ca_cert.path", ca_path, nullptr);
}

/// In this order; each lets go of what an earlier run made.
void init_modules()
{
    const velm_config *config = process.config.get();
    velm_request_preprocessor_init(config);
    velm_request_assert_check_init(config);
    velm_request_user_pass_check_init(config);
    velm_request_pairing_check_init(config);
    velm_request_device_check_init(config);
    velm_nvram_pairings_init(config);
    velm_challenge_engine_init();
    velm_attestation_engine_init(config);
    velm_cloud_messaging_init(config);
    velm_google_auth_init(config);
}

/// Rebuilds the record. The servers run at an address of the LAN: that nobody can tell which it is now
/// is no reason to leave it.
void update_config(velm_lan_answer lan)
{
    std::string in_use = process.config->lan_ip_address;
    load_settings();
    if (lan.was_asked && !lan.addresses) {
        LOG_ERROR("%s - the LAN address is not known and stays %s", __func__, in_use.c_str());
        lan.addresses = std::move(in_use);
    }
    identify_access_point(lan);
    velm_lan_settle(process.config.get(), lan.was_asked);
}

/// Whoever waits at the control socket for something new is told.
void on_story_change()
{
    control_server_tell(story_latest());
}

/// The default lies beside the pid file, so without one there is none.
void start_control_server(void *, short, common_async_context *) noexcept
{
    const velm_config &config = *process.config;
    if (config.control_sock[0] == '\0' && config.pid_file_path[0] == '\0') {
        LOG_WARN("%s - no control socket, since there is no pid file that it could lie beside",
                 __func__);
    }
    control_server_start(config.control_sock);
}

/// Runs behind the action that starts the servers.
void tell_started(void *, short, common_async_context *) noexcept
{
    if (!velm_lan_query_is_under_way()) { // else the next reload has begun
        process_notify_ready();
    }
}

void start_servers()
{
    velm_main_start();
    common_async_action_call(start_control_server, nullptr); // after the servers
    common_async_action_call(tell_started, nullptr);
}

void ask_to_reload();

void reload(velm_lan_answer lan)
{
    common_logger_read_time_zone();
    update_config(std::move(lan));
    http_client_free_ssl();
    set_up_https_client();
    init_modules();
    velm_main_deinit();
    velm_main_init(process.config.get());
    start_servers();
    metrics_count(metric::reloads);
    if (std::exchange(process.reloads_again, false)) {
        ask_to_reload();
    }
}

/// The command that knows the LAN address takes milliseconds, or seconds when it hangs: the loop
/// serves meanwhile, and the reload begins when it has ended. Then everything is read anew but the
/// address, so another signal means another reload.
void ask_to_reload()
{
    if (velm_lan_query_is_under_way()) {
        process.reloads_again = true;
        return;
    }
    process_notify_reloading();
    velm_lan_query_begin(reload);
    if (velm_lan_query_is_under_way()) {
        prepare_https_client();
    }
}

void on_sighup(evutil_socket_t, short, void *) noexcept
{
    ask_to_reload();
}

void make_event_base()
{
    const event_config_ptr settings{event_config_new()};
    REQUIRE_MEMORY(settings, "event_config");
    event_config_set_flag(settings.get(), EVENT_BASE_FLAG_EPOLL_USE_CHANGELIST);
    process.base.reset(event_base_new_with_config(settings.get()));
    REQUIRE_MEMORY(process.base, "event_base");
    event_base *base = process.base.get();
    common_async_set_event_base(base);
    http_client_set_event_base(base);
    velm_main_set_event_base(base);
    common_netlink_set_event_base(base);
    velm_lan_query_set_event_base(base);
    control_server_set_event_base(base);
    story_subscribe(on_story_change);
    process_notify_set_event_base(base);
}

void watch_sighup()
{
    process.event_sighup.reset(
        event_new(process.base.get(), SIGHUP, EV_SIGNAL | EV_PERSIST, on_sighup, nullptr));
    if (process.event_sighup == nullptr) {
        fatal_null_reference(log_category, __FILE__, __LINE__, "main", "event_sighup");
    }
    const int rc = event_add(process.event_sighup.get(), nullptr);
    if (rc != 0) {
        fatal_call(log_category, __FILE__, __LINE__, "main", "event_add(event_sighup, NULL)", rc);
    }
    process_unblock_sighup();
}

void make_config()
{
    const allocation_name naming{"main", "velm_config"};
    process.config = std::make_unique<velm_config>();
}

void announce_version()
{
    std::printf("%s %i.%i.%i\n", "velm", velm_version_major, velm_version_minor,
                velm_version_patch);
    std::fflush(stdout);
    LOG_INFO("%s %i.%i.%i", "velm", velm_version_major, velm_version_minor, velm_version_patch);
}

} // namespace

int main(int argc, char **argv)
{
    process_prepare();
    process_notify_begin();
    if (is_disabled_by_nvram() && !velm_command_line_asks_to_check(argc, argv)) {
        tell_switched_off();
        return EXIT_SUCCESS;
    }
    process.command_line = velm_command_line_parse(argc, argv);
    process.config_path = process.command_line.config_path.value_or(default_config_path);
    if (process.command_line.checks) {
        return process_become_check(argc, argv);
    }
    make_config();
    load_defaults_and_file();
    if (process.config->daemonize) {
        process.pid_file = daemonize(process.config->pid_file_path);
        process_register_for_restart(process.command_line);
    }
    set_log_level_from_nvram();
    announce_version();
    control_status_init(process.config.get(), process.config_path);
    load_settings();
    const velm_lan_answer lan = velm_lan_query_wait(prepare_servers);
    identify_access_point(lan);
    set_up_https_client();
    // For what a platform's library draws with rand(): nothing of ours does.
    std::srand(static_cast<unsigned>(getpid()) ^ static_cast<unsigned>(std::time(nullptr)));
    make_event_base();
    watch_sighup();
    common_async_init();
    velm_main_init(process.config.get());
    init_modules();
    common_netlink_observe_losses(velm_lan_address_went);
    common_netlink_observe(velm_lan_address_came, nullptr);
    velm_lan_settle(process.config.get(), lan.was_asked);
    start_servers();
    event_base_dispatch(process.base.get());
    return EXIT_SUCCESS;
}
