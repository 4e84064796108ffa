#include "control/metrics.h"

#include <cstdint>
#include <iterator>
#include <string>

#include "async/common_async.h"
#include "control/exposition.h"
#include "control/process_usage.h"
#include "control/status.h"
#include "http_server/connections.h"
#include "ipc/report_queue.h"
#include "metrics/metrics.h"
#include "story/checks.h"
#include "story/view.h"
#include "velm_ipc.h"
#include "velm_location_policy_ipc.h"

namespace {

using kind = control_metric_kind;

struct counter_row {
    const char *name;
    const char *help;
    metric which;
};

// clang-format off
constexpr counter_row counters[] = {
    {"velmd_reports_total",         "Reports that were sent to the local clients.",           metric::reports},
    {"velmd_reloads_total",         "Reloads of the configuration.",                          metric::reloads},
    {"velmd_lan_moves_total",       "Changes of the LAN address that is served.",             metric::lan_moves},
    {"velmd_searches_total",        "Searches of phones for this daemon.",                    metric::searches},
    {"velmd_search_answers_total",  "Answers to searches.",                                   metric::search_answers},
    {"velmd_password_hashes_total", "Passwords that were hashed, for logins good and bad.",   metric::password_hashes},
};
// clang-format on

struct labelled_row {
    const char *value;
    metric which;
};

static_assert(metrics_row(metric::refusals_first, metric::refusals_last) ==
              std::size(story_checks));
static_assert(metrics_row(metric::rounds_first, metric::rounds_last) ==
              static_cast<std::size_t>(story_state::refused));

/// How a round ends, in the order of story_state. A label has no blanks.
constexpr const char *round_states[] = {"answered", "expired", "client_gone", "refused"};
static_assert(std::size(round_states) == metrics_row(metric::rounds_first, metric::rounds_last));

constexpr labelled_row refused_connections[] = {
    {"total", metric::connections_over_total},
    {"address", metric::connections_over_address},
    {"memory", metric::connections_over_memory},
    {"time", metric::connections_over_time},
    {"handshake", metric::connections_without_handshake},
};

void add_gauge(control_exposition &text, const char *name, std::uint64_t value, const char *help)
{
    text.begin(name, kind::gauge, help);
    text.sample(value);
}

template <std::size_t Size>
void add_labelled(control_exposition &text, const char *label, const labelled_row (&rows)[Size])
{
    for (const labelled_row &row : rows) {
        text.label(label, row.value);
        text.sample(metrics_get(row.which));
    }
}

/// Of the pairs that have come.
void add_requests(control_exposition &text)
{
    text.begin("velmd_requests_total", kind::counter,
               "Answers of the HTTPS server; the route is none for what was refused before it.");
    for (std::size_t route = 0; route < metrics_routes.size(); ++route) {
        for (std::size_t status = 0; status < metrics_statuses.size(); ++status) {
            const std::uint64_t answers = metrics_replies(route, status);
            if (answers == 0) {
                continue;
            }
            const int code = metrics_statuses[status];
            text.label("route", metrics_routes[route]);
            text.label("status", code == 0 ? "other" : std::to_string(code));
            text.sample(answers);
        }
    }
}

std::string push_status_text(int status)
{
    return status == 0 ? "none" : status < 0 ? "other" : std::to_string(status);
}

void add_pushes(control_exposition &text)
{
    text.begin("velmd_pushes_total", kind::counter,
               "Pushes by the status that the cloud answered; none for no answer.");
    for (const metrics_push_count &one : metrics_pushes()) {
        if (one.pushes != 0) {
            text.label("status", push_status_text(one.status));
            text.sample(one.pushes);
        }
    }
}

void add_counters(control_exposition &text)
{
    add_requests(text);
    text.begin("velmd_refusals_total", kind::counter,
               "Requests and connections of phones that were refused, by what refused them.");
    for (std::size_t i = 0; i < std::size(story_checks); ++i) {
        text.label("check", story_checks[i]);
        text.sample(metrics_get(metric::refusals_first, i));
    }
    add_pushes(text);
    text.begin("velmd_rounds_total", kind::counter, "Rounds that have ended, by how.");
    for (std::size_t i = 0; i < std::size(round_states); ++i) {
        text.label("state", round_states[i]);
        text.sample(metrics_get(metric::rounds_first, i));
    }
    text.begin("velmd_connections_refused_total", kind::counter,
               "Connections of phones that were refused or closed, by the limit that was reached.");
    add_labelled(text, "why", refused_connections);
    for (const counter_row &row : counters) {
        text.begin(row.name, kind::counter, row.help);
        text.sample(metrics_get(row.which));
    }
}

void add_gauges(control_exposition &text)
{
    const velm_ipc *const server = velm_location_policy_ipc_server();
    const velm_ipc_usage usage = server != nullptr ? velm_ipc_usage_of(server) : velm_ipc_usage{};
    add_gauge(text, "velmd_connections", http_connections_count(), "Open connections of phones.");
    add_gauge(text, "velmd_connections_max", http_connection_limits{}.total,
              "How many connections of phones can be open.");
    add_gauge(text, "velmd_local_clients", usage.connections, "Connected local clients.");
    add_gauge(text, "velmd_open_requests", usage.open_requests,
              "Requests of local clients that wait for their time to end.");
    add_gauge(text, "velmd_action_queue_length", common_async_waiting(),
              "Calls that wait for their turn of the loop.");
    add_gauge(text, "velmd_reports_waiting_bytes", location_queue_bytes(),
              "Memory of locations that wait for local clients to read.");
}

void add_process(control_exposition &text)
{
    const control_process_usage usage = control_process_usage_now();
    text.begin("process_cpu_seconds_total", kind::counter, "Time of the processor, in seconds.");
    text.sample_seconds(usage.cpu_seconds);
    add_gauge(text, "process_resident_memory_bytes", usage.resident_bytes, "Resident memory.");
    add_gauge(text, "process_open_fds", usage.open_descriptors, "Open descriptors.");
}

} // namespace

std::string control_metrics_text()
{
    control_exposition text;
    text.begin("velmd_info", kind::gauge, "The version, as a label.");
    text.label("version", control_status_version());
    text.sample(1);
    text.begin("velmd_start_time_seconds", kind::gauge,
               "When the daemon started, since the epoch.");
    text.sample(control_status_start());
    add_counters(text);
    add_gauges(text);
    add_process(text);
    return text.take();
}
