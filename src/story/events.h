#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstdint>

/// What is remembered of a round: a request of a local client, the pushes that it caused, the visits of
/// phones until it is answered or expires, and the reports.
///
/// Plain records of a fixed size. Nothing secret is in them: no password, hash, token, key, challenge
/// or location. A text in an array comes from outside: it is terminated and whole characters only, but
/// it may hold any bytes. A text behind a pointer is a constant of the program.

enum class story_state : std::uint8_t { open, answered, expired, client_gone, refused };

/// Why no location came, in the order in which a cause is looked for.
enum class story_cause : std::uint8_t {
    none, // the round is open, or answered
    busy,
    no_pairings,
    too_soon,
    no_key,
    no_access_token,
    every_push_failed,
    phones_refused,
    daemon_reloaded,
    client_gone,
    push_pending,
    phone_never_came,
    unknown,
};

/// Milliseconds since the epoch; 0 is never.
using story_moment = std::int64_t;

struct story_push {
    std::uint64_t number = 0; // 1 is the first of all; 0: the place is free
    std::uint32_t run = 0;
    std::int32_t slot = 0;
    story_moment at = 0;
    std::chrono::steady_clock::time_point begun;
    std::int32_t milliseconds = 0; // from then to the answer
    std::int32_t status = 0;       // of HTTP; 0: none
    std::uint32_t device = 0;      // a number made of its device id; 0: not known
    bool ended = false;            // answered, or given up
    char name[48] = {};
    char model[32] = {};
    char error[48] = {}; // in words; empty: none
};

/// A request of a phone, or what was refused before it became one. `check` is one of story_checks.
struct story_visit {
    std::uint64_t number = 0;
    story_moment at = 0;
    story_moment until = 0;
    std::uint32_t times = 0; // the same one after another
    in_addr_t address = 0;
    const char *route = nullptr; // null: none was reached
    const char *check = nullptr; // that refused; null: accepted
    const char *why = nullptr;
    std::int32_t status = 0; // 0: no answer
    std::uint32_t late = 0;  // the round that was answered before it came; 0: none
    char device_id[48] = {}; // empty: not known
    char hint[96] = {};      // what the check saw; empty: nothing to say
};

struct story_report {
    std::uint64_t number = 0;
    story_moment at = 0;
    in_addr_t address = 0;
    std::uint32_t clients = 0; // that it was sent to
    std::uint32_t late = 0;    // as that of a visit
    char device_id[48] = {};
};

/// Numbers from `begin` up to before `end`. While the round waits, the end is not known yet.
struct story_interval {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
};

struct story_round {
    std::uint64_t id = 0; // 1 is the first of all; 0: the place is free
    story_state state = story_state::open;
    /// Its request is not answered yet, and its client is there. An expired round waits on for as long as
    /// a location would still be reported to the client.
    bool waits = false;       // visits belong to it only while it is open
    bool was_cut_off = false; // the daemon ended its connection
    story_cause run_left_out =
        story_cause::none; // why no push run was begun, or why it came to nothing
    std::uint32_t seq = 0; // names the request in velm_ipc
    story_moment asked = 0;
    story_moment closed = 0;
    std::chrono::steady_clock::time_point asked_steady;
    std::chrono::steady_clock::time_point answered_steady;
    std::int32_t pid = 0;
    std::uint32_t uid = 0;
    std::uint32_t request_id = 0;
    std::uint32_t timeout_s = 0;
    std::uint32_t run = 0;        // of the pushes that it caused; 0: none
    std::int32_t run_status = 0;  // that the access token was refused with; 0: none
    std::uint32_t pushes = 0;     // that were begun
    std::uint32_t pushes_ok = 0;  // that the push service took
    std::uint32_t pushes_bad = 0; // that it did not take
    std::int32_t push_status = 0; // of the last bad one
    const char *push_lacked =
        nullptr; // what no push of the run had when the round closed; else null
    story_interval visits;
    story_interval reports;
    std::uint32_t late_visits =
        0; // of phones that were pushed to, after its answer; not in the intervals
    std::uint32_t late_reports = 0;
    std::uint32_t visited = 0;           // times that anything came
    std::uint32_t came = 0;              // of them, requests of phones
    std::uint32_t posted = 0;            // of them, accepted at "/location"
    const char *refused_route = nullptr; // where a phone was refused last and not accepted since
    const char *refused_why = nullptr;
    const char *stopped_why = nullptr; // why something was refused last before it reached a route
    std::uint64_t posted_by_then = 0;  // by anybody when it was answered: later reports continue it
};
