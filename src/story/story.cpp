#include "story/story.h"

#include <algorithm>
#include <chrono>

#include "metrics/metrics.h"
#include "story/memory.h"
#include "story/view.h"
#include "text/cut.h"

namespace {

using steady_clock = std::chrono::steady_clock;

constexpr std::uint32_t longest_timeout_s = 600; // as long as a request is kept

story_memory kept;

/// A client measures its time-out too, and not to the millisecond.
constexpr std::chrono::seconds client_clock_slack{1};

story_round *round_find(std::uint32_t seq)
{
    for (story_round &round : kept.rounds) {
        if (round.waits && round.seq == seq) {
            return &round;
        }
    }
    return nullptr;
}

story_round *round_of_run(std::uint32_t run)
{
    for (story_round &round : kept.rounds) {
        if (run != 0 && round.run == run) {
            return &round;
        }
    }
    return nullptr;
}

story_round &round_place(std::uint64_t id)
{
    return kept.rounds[(id - 1) % kept.rounds.size()];
}

/// What no push of its run has by now; null when one was taken, or each was refused.
const char *push_lack_of(const story_round &round)
{
    if (round.run == 0 || round.pushes_ok > 0) {
        return nullptr;
    }
    return round.pushes == 0 ? "left" : round.pushes_bad == 0 ? "been answered" : "been taken";
}

/// No visit from now on belongs to it, so that its cause stays as the log has it.
void round_close(story_round &round, story_state state)
{
    round.state = state;
    round.closed = story_now();
    round.push_lacked = push_lack_of(round);
    round.visits.end = kept.visits.last + 1;
    kept.visits.repeats_end_with = kept.visits.last;
    --kept.open;
    metrics_count(metric::rounds_first, static_cast<std::size_t>(state) - 1); // the first is open
    story_round_log(round, story_state_name(state));
}

/// Nothing that comes from now on belongs to it.
void round_end(story_round &round)
{
    round.waits = false;
    round.reports.end = kept.last_report + 1;
    --kept.waiting;
}

void round_end_as(story_round &round, story_state state)
{
    if (round.state == story_state::open) {
        round_close(round, state);
    }
    round_end(round);
    story_changed();
}

/// The oldest round goes for it.
story_round &round_begin()
{
    story_round &round = round_place(++kept.last_round);
    if (round.waits) {
        if (round.state == story_state::open) {
            story_round_log(round, "forgotten");
            --kept.open;
        }
        round_end(round);
    }
    round = {};
    round.id = kept.last_round;
    round.waits = true;
    ++kept.waiting;
    ++kept.open;
    round.visits.begin = kept.visits.last + 1;
    round.reports.begin = kept.last_report + 1;
    kept.visits.repeats_end_with = kept.visits.last;
    return round;
}

/// By either clock: the one on the wall is what requests are dropped by, and it may be set forward.
bool has_waited_its_time(const story_round &round, std::chrono::milliseconds slack = {})
{
    const std::chrono::milliseconds time_out = std::chrono::seconds{round.timeout_s};
    const std::chrono::milliseconds on_the_wall{story_now() - round.asked};
    return steady_clock::now() - round.asked_steady + slack >= time_out ||
           on_the_wall + slack >= time_out;
}

void client_gone(story_round &round)
{
    round_end_as(round, has_waited_its_time(round, client_clock_slack) ? story_state::expired
                                                                       : story_state::client_gone);
}

bool is_busy_one_of(const story_round &round, const story_round &other)
{
    return round.state == story_state::refused && round.run_left_out == story_cause::busy &&
           round.pid == other.pid && round.uid == other.uid;
}

/// A client that is turned away again and again has one round for that: the place of `round` is free
/// again.
bool join_the_one_before(story_round &round)
{
    if (round.id != kept.last_round || round.id < 2) {
        return false;
    }
    story_round &before = round_place(round.id - 1);
    if (!is_busy_one_of(before, round)) {
        return false;
    }
    before.closed = story_now();
    round_end(round);
    --kept.open;
    round = {};
    --kept.last_round;
    story_changed();
    return true;
}

/// A late answer ends a round that is logged and counted already.
void round_answer(story_round &round)
{
    round.answered_steady = steady_clock::now();
    if (round.state == story_state::open) {
        round_close(round, story_state::answered);
        return;
    }
    round.state = story_state::answered;
    round.closed = story_now();
}

void report_answers(std::uint64_t number)
{
    for (story_round &round : kept.rounds) {
        if (round.waits && kept.sent_to > 0) {
            round.posted_by_then = kept.posted;
            round_end(round);
            round_answer(round);
        } else if (!round.waits && round.state == story_state::answered &&
                   round.reports.end == number && round.posted_by_then == kept.posted) {
            round.reports.end = number + 1; // one more location of the same list
        }
    }
}

} // namespace

story_memory &story_kept()
{
    return kept;
}

void story_changed()
{
    ++kept.latest;
    if (kept.changed != nullptr) {
        kept.changed();
    }
}

story_moment story_now()
{
    using std::chrono::milliseconds;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<milliseconds>(now).count();
}

void story_forget()
{
    kept = {};
}

void story_request_came(std::uint32_t seq, const story_asker &asker)
{
    story_round &round = round_begin();
    round.seq = seq;
    round.asked = story_now();
    round.asked_steady = steady_clock::now();
    round.pid = asker.pid;
    round.uid = asker.uid;
    round.request_id = asker.request_id;
    round.timeout_s = longest_timeout_s;
    story_changed();
}

void story_request_wants(std::uint32_t seq, std::uint32_t timeout_s)
{
    if (story_round *const round = round_find(seq); round != nullptr) {
        round->timeout_s =
            timeout_s == 0 ? longest_timeout_s : std::min(timeout_s, longest_timeout_s);
    }
}

void story_request_refused(std::uint32_t seq, story_cause why)
{
    story_round *const round = round_find(seq);
    if (round == nullptr || (why == story_cause::busy && join_the_one_before(*round))) {
        return;
    }
    round->run_left_out = why;
    round_end_as(*round, story_state::refused);
}

void story_request_dropped(std::uint32_t seq)
{
    if (story_round *const round = round_find(seq); round != nullptr) {
        round_end_as(*round, story_state::expired);
    }
}

void story_client_gone(std::uint32_t seq)
{
    if (story_round *const round = round_find(seq); round != nullptr) {
        client_gone(*round);
    }
}

void story_clients_gone()
{
    for (story_round &round : kept.rounds) {
        if (round.waits) {
            round.was_cut_off = true;
            client_gone(round);
        }
    }
}

void story_close_expired()
{
    if (kept.open == 0) {
        return;
    }
    for (story_round &round : kept.rounds) {
        if (round.waits && round.state == story_state::open && has_waited_its_time(round)) {
            round_close(round, story_state::expired);
            story_changed();
        }
    }
}

void story_run_asked(std::uint32_t seq)
{
    kept.asking = seq;
}

void story_run_left_out(story_cause why)
{
    if (story_round *const round = round_find(kept.asking); round != nullptr) {
        round->run_left_out = why;
        story_changed();
    }
}

void story_run_begins()
{
    ++kept.last_run;
    if (story_round *const round = round_find(kept.asking); round != nullptr) {
        round->run = kept.last_run;
        story_changed();
    }
}

std::uint32_t story_run_number()
{
    return kept.last_run;
}

void story_run_failed(std::uint32_t run, story_cause why, std::int32_t status)
{
    if (story_round *const round = round_of_run(run); round != nullptr) {
        round->run_left_out = why;
        round->run_status = status;
        story_changed();
    }
}

std::uint64_t story_push_begins(const story_push_target &target)
{
    story_push &push = kept.pushes[kept.last_push % kept.pushes.size()];
    push = {};
    push.number = ++kept.last_push;
    push.run = target.run;
    push.slot = target.slot;
    push.at = story_now();
    push.begun = steady_clock::now();
    push.device = story_device_of(target.device_id);
    text_cut(push.name, target.name);
    text_cut(push.model, target.model);
    if (story_round *const round = round_of_run(target.run); round != nullptr) {
        ++round->pushes;
    }
    story_changed();
    return push.number;
}

void story_push_ends(std::uint64_t number, std::int32_t status, const char *error)
{
    if (number == 0) {
        return;
    }
    story_push &push = kept.pushes[(number - 1) % kept.pushes.size()];
    if (push.number != number) {
        return; // forgotten
    }
    using std::chrono::milliseconds;
    const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - push.begun);
    push.milliseconds = static_cast<std::int32_t>(took.count());
    push.status = status;
    push.ended = true;
    text_cut(push.error, error);
    if (story_round *const round = round_of_run(push.run); round != nullptr) {
        if (error == nullptr) {
            ++round->pushes_ok;
        } else {
            ++round->pushes_bad;
            round->push_status = status;
        }
    }
    story_changed();
}

void story_report_sent(std::uint32_t clients)
{
    kept.sent_to = clients;
}

void story_report_done(const char *device_id, in_addr_t address)
{
    story_report &report = kept.reports[kept.last_report % kept.reports.size()];
    report = {};
    report.number = ++kept.last_report;
    report.at = story_now();
    report.address = address;
    report.clients = kept.sent_to;
    text_cut(report.device_id, device_id);
    story_round *const late = story_round_for_late(device_id);
    report_answers(report.number);
    if (late != nullptr && report.number >= late->reports.end) {
        report.late = static_cast<std::uint32_t>(late->id);
        ++late->late_reports;
    }
    story_changed();
}
