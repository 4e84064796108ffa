#include "control/status.h"

#include <unistd.h>

#include <chrono>

#include "control/members.h"
#include "control/status_parts.h"
#include "logger/fatal.h"
#include "metrics/metrics.h"
#include "process/version.h"

namespace {

constexpr char log_category[] = "control";
constexpr double document_version = 1;

using wall = std::chrono::system_clock;
using steady = std::chrono::steady_clock;

struct module_state {
    const velm_config *config = nullptr;
    std::string configuration_file;
    steady::time_point started;
};
module_state state;

std::int64_t milliseconds_of(wall::duration since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
}

wall::duration started()
{
    const auto up = steady::now() - state.started;
    return wall::now().time_since_epoch() - std::chrono::duration_cast<wall::duration>(up);
}

void add_daemon(cJSON *document)
{
    const auto up = steady::now() - state.started;
    cJSON *const daemon = control_add_object(document, "daemon");
    control_add_text(daemon, "version", control_status_version());
    control_add_number(daemon, "pid", getpid());
    control_add_number(
        daemon, "uptimeSeconds",
        static_cast<double>(std::chrono::duration_cast<std::chrono::seconds>(up).count()));
    control_add_moment(daemon, "started", milliseconds_of(started()));
    control_add_number(daemon, "reloads", static_cast<double>(metrics_get(metric::reloads)));
    const std::string &file = state.configuration_file;
    control_add_text_or_null(daemon, "configurationFile", file.empty() ? nullptr : file.c_str());
}

} // namespace

void control_status_init(const velm_config *config, const std::string &configuration_file)
{
    state = {config, configuration_file, steady::now()};
}

std::string control_status_version()
{
    return std::to_string(velm_version_major) + '.' + std::to_string(velm_version_minor) + '.' +
           std::to_string(velm_version_patch);
}

std::uint64_t control_status_start()
{
    return static_cast<std::uint64_t>(std::chrono::round<std::chrono::seconds>(started()).count());
}

json_ptr control_status_document()
{
    REQUIRE_NOT_NULL(state.config, "config");
    json_ptr document = control_object();
    control_add_number(document.get(), "version", document_version);
    control_add_moment(document.get(), "now", milliseconds_of(wall::now().time_since_epoch()));
    add_daemon(document.get());
    control_status_add_settings(document.get(), *state.config);
    control_status_add_servers(document.get(), *state.config);
    control_status_add_clock(document.get());
    control_status_add_phones(document.get(), *state.config);
    return document;
}
