#include <unistd.h>

#include <cstdio>
#include <string>

#include "velmctl_client.h"
#include "velmctl_options.h"
#include "velmctl_print.h"

/// velmctl asks the daemon for the access point's location, or listens to what it reports.

namespace {

enum exit_status : int {
    exit_reported = 0,
    exit_failed = 1,
    exit_usage = 2,
    exit_nothing_paired = 3,
    exit_timed_out = 4,
    exit_busy = 5,
};

velmctl_deadline deadline_of(const velmctl_options &options)
{
    if (!options.wait_s.has_value()) {
        return std::nullopt;
    }
    return std::chrono::steady_clock::now() + std::chrono::seconds{*options.wait_s};
}

/// False when standard output is gone.
bool print(const std::string &text)
{
    if (std::fputs(text.c_str(), stdout) == EOF || std::fflush(stdout) == EOF) {
        std::perror("velmctl: standard output");
        return false;
    }
    return true;
}

bool print_report(const velmctl_options &options, const velm_frame_header &header,
                  const velm_location_report &report)
{
    return print(options.json ? velmctl_report_to_json(header, report)
                              : velmctl_report_to_text(header, report));
}

exit_status answer_handle(const velmctl_options &options, const velm_frame_header &header)
{
    if (options.json && !print(velmctl_answer_to_json(header))) {
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

/// Ends with the first report, or with the answer to our request.
exit_status locate(const velmctl_client &client, const velmctl_options &options)
{
    const velmctl_deadline deadline = deadline_of(options);
    const auto id = static_cast<std::uint32_t>(getpid());
    if (!client.send_request(id, options.timeout_s)) {
        return exit_failed;
    }
    velmctl_frame frame{};
    velmctl_received received{};
    while ((received = client.receive(deadline, frame)) == velmctl_received::frame) {
        if (frame.header.type == VELM_LOCATION_REQUEST && frame.header.id == id) {
            return answer_handle(options, frame.header);
        }
        const auto report = velmctl_report_parse(frame);
        if (frame.header.type == VELM_LOCATION_REPORT && report.has_value()) {
            return print_report(options, frame.header, *report) ? exit_reported : exit_failed;
        }
        std::fprintf(stderr, "velmctl: passed over a frame of type %u\n", frame.header.type);
    }
    if (received == velmctl_received::failed) {
        return exit_failed;
    }
    std::fputs("velmctl: no location came in time\n", stderr);
    return exit_timed_out;
}

/// Ends when the time is up, or the daemon goes.
exit_status watch(const velmctl_client &client, const velmctl_options &options)
{
    const velmctl_deadline deadline = deadline_of(options);
    exit_status status = exit_timed_out;
    velmctl_frame frame{};
    velmctl_received received{};
    while ((received = client.receive(deadline, frame)) == velmctl_received::frame) {
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
    return received == velmctl_received::failed ? exit_failed : status;
}

} // namespace

int main(int argc, char *argv[])
{
    const auto options = velmctl_options_parse(argc, argv);
    if (!options.has_value()) {
        std::fputs(velmctl_usage, stderr);
        return exit_usage;
    }
    if (options->command == velmctl_command::help) {
        return print(velmctl_usage) ? 0 : exit_failed;
    }
    velmctl_client client;
    if (!client.connect(options->socket_path)) {
        return exit_failed;
    }
    return options->command == velmctl_command::locate ? locate(client, *options)
                                                       : watch(client, *options);
}
