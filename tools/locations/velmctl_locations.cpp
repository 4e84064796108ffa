#include "tools/locations/velmctl_locations.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "tools/locations/velmctl_client.h"
#include "tools/locations/velmctl_print.h"
#include "tools/terminal/output.h"

namespace {

enum exit_status : int {
    exit_reported = 0,
    exit_failed = 1,
    exit_nothing_paired = 3,
    exit_timed_out = 4,
    exit_busy = 5,
};

using std::chrono::steady_clock;

// Each reload of the daemon closes every connection, and a restart takes a few seconds.
constexpr std::chrono::seconds reconnect_limit{10};
constexpr std::chrono::milliseconds reconnect_interval{100};

velmctl_deadline deadline_of(const velmctl_options &options)
{
    if (!options.wait_s.has_value()) {
        return std::nullopt;
    }
    return steady_clock::now() + std::chrono::seconds{*options.wait_s};
}

bool print_report(const velmctl_options &options, const velm_frame_header &header,
                  const velm_location_report &report)
{
    return velmctl_print(options.json ? velmctl_report_to_json(header, report)
                                      : velmctl_report_to_text(header, report));
}

exit_status answer_handle(const velmctl_options &options, const velm_frame_header &header)
{
    if (options.json && !velmctl_print(velmctl_answer_to_json(header))) {
        return exit_failed;
    }
    switch (header.status) {
    case VELM_STATUS_NO_PAIRED_DEVICES:
        std::fputs("velmctl: no phone is paired\n", stderr);
        return exit_nothing_paired;
    case VELM_STATUS_BUSY:
        std::fputs("velmctl: the daemon is busy\n", stderr);
        return exit_busy;
    default:
        std::fprintf(stderr, "velmctl: the daemon answered with status %u\n", header.status);
        return exit_failed;
    }
}

exit_status fail(const std::string &what)
{
    std::fprintf(stderr, "velmctl: %s: %s\n", what.c_str(), std::strerror(errno));
    return exit_failed;
}

exit_status locate_ended(const velmctl_options &options, velmctl_result result)
{
    switch (result) {
    case velmctl_result::timed_out:
        std::fputs("velmctl: no location came in time\n", stderr);
        return exit_timed_out;
    case velmctl_result::closed:
        std::fputs("velmctl: the daemon closed the connection before a location came: it was"
                   " reloaded, or it is full and another client got the place; ask again\n",
                   stderr);
        return exit_failed;
    case velmctl_result::turned_away:
        std::fputs("velmctl: the daemon closed the connection at once and did not read the request:"
                   " it is full, or it was reloaded\n",
                   stderr);
        return exit_failed;
    case velmctl_result::done:
    case velmctl_result::failed:
        break;
    }
    return fail(options.socket_path);
}

/// Ends with the first report, or with the answer to our request. A request dies with its
/// connection and is not sent again: whether the phones are to be pushed to once more is for the
/// caller to say.
exit_status locate(velmctl_client &client, const velmctl_options &options,
                   velmctl_deadline deadline)
{
    const auto id = static_cast<std::uint32_t>(getpid());
    velmctl_frame frame{};
    velmctl_result result = client.send_request(id, options.timeout_s);
    while (result == velmctl_result::done &&
           (result = client.receive(deadline, frame)) == velmctl_result::done) {
        if (frame.header.type == VELM_LOCATION_REQUEST && frame.header.id == id) {
            return answer_handle(options, frame.header);
        }
        const auto report = velmctl_report_parse(frame);
        if (frame.header.type == VELM_LOCATION_REPORT && report.has_value()) {
            return print_report(options, frame.header, *report) ? exit_reported : exit_failed;
        }
        std::fprintf(stderr, "velmctl: passed over a frame of type %u\n", frame.header.type);
    }
    return locate_ended(options, result);
}

/// From the first connection that the daemon closed until one that lasts, or brings a report.
struct outage {
    steady_clock::time_point began;
    steady_clock::time_point connected;
    std::chrono::milliseconds pause{}; // before the next try; none: there is no outage
};

/// A daemon that is full closes as soon as we come, or gives our place to the next one: what ends
/// within the time that an outage may last belongs to the same outage, and each try waits twice as
/// long as the one before.
void outage_go_on(outage &outage)
{
    const auto now = steady_clock::now();
    if (outage.pause.count() == 0 || now - outage.connected >= reconnect_limit) {
        outage.began = now;
        outage.pause = reconnect_interval;
        return;
    }
    outage.pause *= 2;
}

/// Tries for a while, at most until the deadline.
velmctl_result reconnect(velmctl_client &client, const velmctl_options &options,
                         velmctl_deadline deadline, outage &outage)
{
    std::fputs("velmctl: the daemon closed the connection; trying again\n", stderr);
    const auto give_up = outage.began + reconnect_limit;
    const auto last = deadline.has_value() ? std::min(*deadline, give_up) : give_up;
    velmctl_result result = velmctl_result::turned_away;
    // Only a daemon that took us is spared: to knock where nobody listens costs it nothing.
    for (auto pause = outage.pause; steady_clock::now() < last; pause = reconnect_interval) {
        // Before the first try too: a daemon that closes at once is not asked in a hot loop.
        std::this_thread::sleep_until(std::min(steady_clock::now() + pause, last));
        result = client.connect(options.socket_path, last);
        if (result == velmctl_result::done) {
            std::fputs("velmctl: connected again\n", stderr);
            outage.connected = steady_clock::now();
            return result;
        }
    }
    if (last != give_up) {
        return velmctl_result::timed_out;
    }
    return result == velmctl_result::turned_away ? result : velmctl_result::failed;
}

velmctl_result watch_next(velmctl_client &client, const velmctl_options &options,
                          velmctl_deadline deadline, outage &outage, velmctl_frame &frame)
{
    while (true) {
        const velmctl_result received = client.receive(deadline, frame);
        if (received == velmctl_result::done) {
            outage.pause = {};
            return received;
        }
        if (received != velmctl_result::closed && received != velmctl_result::turned_away) {
            return received;
        }
        outage_go_on(outage);
        const velmctl_result connected = reconnect(client, options, deadline, outage);
        if (connected != velmctl_result::done) {
            return connected;
        }
    }
}

exit_status watch_failed(const velmctl_options &options, velmctl_result result)
{
    if (result == velmctl_result::turned_away) {
        std::fputs("velmctl: the daemon is full: it closed each connection at once\n", stderr);
        return exit_failed;
    }
    return fail(options.socket_path);
}

/// Ends when the time is up, or the daemon goes and does not come back.
exit_status watch(velmctl_client &client, const velmctl_options &options, velmctl_deadline deadline)
{
    exit_status status = exit_timed_out;
    velmctl_frame frame{};
    velmctl_result result{};
    outage lost{};
    while ((result = watch_next(client, options, deadline, lost, frame)) == velmctl_result::done) {
        const auto report = velmctl_report_parse(frame);
        if (frame.header.type != VELM_LOCATION_REPORT || !report.has_value()) {
            std::fprintf(stderr, "velmctl: passed over a frame of type %u\n", frame.header.type);
            continue;
        }
        if (!print_report(options, frame.header, *report)) {
            return exit_failed;
        }
        status = exit_reported;
    }
    return result == velmctl_result::timed_out ? status : watch_failed(options, result);
}

/// What a command does before it begins; none when it may.
std::optional<exit_status> connect(velmctl_client &client, const velmctl_options &options,
                                   velmctl_deadline deadline)
{
    switch (client.connect(options.socket_path, deadline)) {
    case velmctl_result::done:
        return std::nullopt;
    case velmctl_result::timed_out:
        std::fputs("velmctl: the daemon did not take the connection in time\n", stderr);
        return exit_timed_out;
    case velmctl_result::closed:
    case velmctl_result::turned_away:
    case velmctl_result::failed:
        break;
    }
    return fail(options.socket_path);
}

} // namespace

int velmctl_locate(const velmctl_options &options)
{
    const velmctl_deadline deadline = deadline_of(options);
    velmctl_client client;
    const auto refused = connect(client, options, deadline);
    return refused.has_value() ? *refused : locate(client, options, deadline);
}

int velmctl_watch(const velmctl_options &options)
{
    const velmctl_deadline deadline = deadline_of(options);
    velmctl_client client;
    const auto refused = connect(client, options, deadline);
    return refused.has_value() ? *refused : watch(client, options, deadline);
}
