#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstdint>

#include "story/checks.h"
#include "story/events.h"

/// Modules tell here what happens; story/view.h shows it. Loop thread only.
///
/// Everything is kept in arrays of a fixed size, 56 KiB in all when every one is full: the last 32
/// rounds, 64 pushes, 96 visits while a round is open, 64 other visits, 64 reports. Nothing is allocated.
/// One address can have at most a quarter of the visits: after that its own oldest one is replaced. The
/// same visit again changes the one that is there.
///
/// Texts may be null where it is said. Those called "constant" live as long as the program; of the
/// others as much is copied as fits.

// A local client's request. `seq` is the number that velm_ipc gave it.

struct story_asker {
    std::int32_t pid;
    std::uint32_t uid;
    std::uint32_t request_id; // the client's
};

/// Opens a round.
void story_request_came(std::uint32_t seq, const story_asker &asker);

/// How long its client waits; 0 and what is longer count as 600 s, the longest that a request is kept.
void story_request_wants(std::uint32_t seq, std::uint32_t timeout_s);

/// It was answered at once: busy or no pairings. Refusals as busy of one client in a row are one round.
void story_request_refused(std::uint32_t seq, story_cause why);

/// It waited for as long as a request is kept.
void story_request_dropped(std::uint32_t seq);
/// The connection of its client has ended, so nobody waits for it.
void story_client_gone(std::uint32_t seq);
void story_clients_gone(); // all of them: the daemon ends their connections

/// Closes the rounds whose clients have waited for as long as they wanted to.
void story_close_expired();

// A push run. One belongs to the request that asked for it.

/// The next run that is begun or left out is for that request.
void story_run_asked(std::uint32_t seq);
void story_run_left_out(story_cause why);
void story_run_begins();

/// Of the run that was begun last.
[[nodiscard]] std::uint32_t story_run_number();

/// It came to nothing: no key or no access token; `status` is of HTTP, 0 for none.
void story_run_failed(std::uint32_t run, story_cause why, std::int32_t status);

struct story_push_target {
    std::uint32_t run;
    std::int32_t slot;
    const char *name; // may be null, like the others
    const char *model;
    const char *device_id = nullptr;
};

/// Gives the number that story_push_ends wants.
std::uint64_t story_push_begins(const story_push_target &target);

/// `status` is of HTTP, 0 for none; a null `error` says that the push service took it.
void story_push_ends(std::uint64_t number, std::int32_t status, const char *error);

// A visit.

struct story_visit_note {
    in_addr_t address = 0;           // 0: not known
    const char *device_id = nullptr; // may be null
    const char *route = nullptr;     // constant; null: none was reached
    std::int32_t status = 0;         // of HTTP; 0: no answer
    const char *check = nullptr;     // of story_checks; null: accepted
    const char *why = nullptr;       // constant
    const char *hint = nullptr;      // may be null
};
void story_visit_came(const story_visit_note &note);

/// A phone that was pushed to and comes within this time after the answer, which another phone gave, is
/// told in that round too.
inline constexpr std::chrono::seconds story_late_limit{60};

/// The constant for the path of a route; null for another path, or none.
[[nodiscard]] const char *story_route_of(const char *path);

// A report.

/// To how many clients the next one was sent.
void story_report_sent(std::uint32_t clients);
void story_report_done(const char *device_id, in_addr_t address);

/// Forgets everything. For tests.
void story_forget();
