#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The subcommands of velm-load: load clients for the daemon's SSDP and IPC, and bare peers that do
/// nothing but receive and send, for comparison under the same client.

struct load_options {
    std::string address = "127.0.0.1:1900"; // IPv4 address and port, of SSDP
    std::string socket_path;                // of the IPC
    std::string reply_path; // where the client writes a reply, and the peer reads it
    std::string target = "urn:schemas-upnp-org:device:velmd:1"; // the "ST" that is searched for
    unsigned outstanding = 32;
    std::uint64_t count = 100'000; // operations, or for a peer answers, at most
    unsigned seconds = 10;         // at most
    pid_t pid = 0;                 // of the server whose processor time is read; 0: nobody's
};

using load_clock = std::chrono::steady_clock;

/// Each prints one JSON object and gives the exit status.
int ssdp_load_run(const load_options &options);
int ipc_load_run(const load_options &options);
/// The peers print {"listening": "..."} first and end by themselves when count or time is used up.
int ssdp_peer_run(const load_options &options);
int ipc_peer_run(const load_options &options);

/// "velm-load: WHAT: reason of errno", on standard error; 1, as an exit status.
int load_failure(const std::string &what);

/// Processor time that the process's threads have used so far; nothing without such a process.
[[nodiscard]] std::optional<double> load_cpu_us(pid_t pid);

[[nodiscard]] double load_seconds_since(load_clock::time_point start);

/// What a run came to; absent figures are left out of the JSON.
struct load_result {
    const char *name = "";
    std::uint64_t sent = 0;
    std::uint64_t answered = 0;
    std::uint64_t wrong = 0; // answers that were none
    double seconds = 0;
    std::optional<double> cpu_us; // of the server, in all
    std::vector<float> latencies_us;
};
void load_result_print(load_result result);
