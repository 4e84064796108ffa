#include "tools/reload/check.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <vector>

#include "check/check.h"
#include "conffile/conffile.h"
#include "tools/control/place.h"
#include "tools/doctor/bind.h"
#include "tools/reload/known.h"
#include "tools/reload/rights.h"
#include "velm_config.h"
#include "velm_nvram_config.h"

namespace {

/// What the daemon was started with; nothing when it cannot be read.
std::vector<std::string> arguments_of(pid_t pid)
{
    std::ifstream file{"/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary};
    std::vector<std::string> arguments;
    for (std::string one; std::getline(file, one, '\0');) {
        arguments.push_back(one);
    }
    return arguments;
}

/// The daemon has accepted these arguments: nothing in them ends the program.
velm_command_line command_line_of(const std::optional<pid_t> &pid)
{
    std::vector<std::string> arguments =
        pid.has_value() ? arguments_of(*pid) : std::vector<std::string>{};
    if (arguments.empty()) {
        return {};
    }
    std::vector<char *> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string &one : arguments) {
        pointers.push_back(one.data());
    }
    pointers.push_back(nullptr);
    optind = 0; // the C library's own reset
    return velm_command_line_parse(static_cast<int>(arguments.size()), pointers.data());
}

/// The file that the daemon reads, as far as it tells; empty: none.
std::string configuration_of(const velmctl_options &options, const reload_daemon &daemon)
{
    return daemon.status.has_value() ? daemon.status->daemon.configuration_file.value_or("")
                                     : options.config_path.value_or(control_default_config);
}

/// How many would be new to the daemon. What it has already is no reason to refuse it what is better.
std::size_t tell(const std::vector<check_finding> &findings, const reload_daemon &daemon,
                 const std::string &path)
{
    std::optional<reload_view> view;
    if (daemon.status.has_value() && !check_is_good(findings)) {
        view.emplace(reload_look(*daemon.status, path));
    }
    std::size_t news = 0;
    for (const check_finding &finding : findings) {
        const bool is_error = finding.severity == check_severity::error;
        const bool is_known = is_error && view.has_value() && reload_is_known(finding, *view);
        news += is_error && !is_known ? 1 : 0;
        std::fprintf(stderr, "%s%s\n", is_known ? "already so: " : "",
                     check_finding_text(finding).c_str());
    }
    return news;
}

bool check_and_tell(const velmctl_options &options, const reload_daemon &daemon)
{
    velm_command_line given = command_line_of(daemon.pid);
    const std::string path = configuration_of(options, daemon);
    if (options.config_path.has_value()) {
        given.config_path = path;
    }
    const std::vector<check_finding> findings = check_configuration(given, path);
    return tell(findings, daemon, path) == 0 || options.force;
}

std::string problem_of(const char *key, const char *address, std::uint16_t port, int kind)
{
    return velmctl_try_bind(address, port, kind) == EADDRINUSE
               ? "port " + std::to_string(port) + " (" + key +
                     ") is taken by another program: the daemon was not told to reload, since it "
                     "would end"
               : "";
}

} // namespace

bool reload_check(const velmctl_options &options, const reload_daemon &daemon)
{
    const bool is_root = geteuid() == 0;
    const auto rights = is_root && daemon.pid.has_value() ? reload_rights_of(*daemon.pid)
                                                          : std::optional<reload_rights>{};
    return reload_run_with(rights, [&] { return check_and_tell(options, daemon); });
}

std::string reload_port_problem(const velmctl_options &options, const control_status &status)
{
    velm_config config{};
    velm_config_set_defaults(&config);
    const std::string path = configuration_of(options, {std::nullopt, status, "", false});
    const conffile_ptr file = path.empty() ? nullptr : conffile_parse(path.c_str());
    if (file != nullptr) {
        errno = 0; // a stale one would keep the numbers from being stored
        velm_config_load_pairs(&config, file);
    }
    velm_nvram_config_load(&config);
    std::string problem;
    if (config.http_server_port != 0 && config.http_server_port != status.https.port &&
        status.lan.address.has_value()) {
        problem = problem_of("http.server.port", status.lan.address->c_str(),
                             config.http_server_port, SOCK_STREAM);
    }
    if (problem.empty() && config.ssdp_server_port != 0 &&
        config.ssdp_server_port != status.discovery.port) {
        problem = problem_of("ssdp.server.port", "0.0.0.0", config.ssdp_server_port, SOCK_DGRAM);
    }
    return problem;
}
