#include "control/rounds.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "control/members.h"
#include "story/view.h"

namespace {

constexpr double document_version = 1;

const char *or_null(const char *text)
{
    return *text == '\0' ? nullptr : text;
}

story_moment now()
{
    using std::chrono::milliseconds;
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<milliseconds>(since).count();
}

json_ptr push_object(const story_push &push)
{
    json_ptr object = control_object();
    control_add_number(object.get(), "slot", push.slot);
    control_add_text(object.get(), "name", push.name);
    control_add_text(object.get(), "model", push.model);
    control_add_moment(object.get(), "at", push.at);
    control_add_number_or_null(object.get(), "milliseconds", push.ended, push.milliseconds);
    control_add_number_or_null(object.get(), "status", push.status > 0, push.status);
    control_add_text_or_null(object.get(), "error", or_null(push.error));
    return object;
}

json_ptr visit_object(const story_visit &visit)
{
    json_ptr object = control_object();
    control_add_moment(object.get(), "at", visit.at);
    control_add_moment(object.get(), "until", visit.until);
    control_add_number(object.get(), "times", visit.times);
    control_add_address(object.get(), "address", visit.address);
    control_add_text_or_null(object.get(), "deviceId", or_null(visit.device_id));
    control_add_text_or_null(object.get(), "route", visit.route);
    control_add_number_or_null(object.get(), "status", visit.status != 0, visit.status);
    control_add_bool(object.get(), "accepted", visit.check == nullptr);
    control_add_text_or_null(object.get(), "check", visit.check);
    control_add_text_or_null(object.get(), "why", visit.why);
    control_add_text_or_null(object.get(), "hint", or_null(visit.hint));
    return object;
}

json_ptr report_object(const story_report &report)
{
    json_ptr object = control_object();
    control_add_moment(object.get(), "at", report.at);
    control_add_text(object.get(), "deviceId", report.device_id);
    control_add_address(object.get(), "address", report.address);
    control_add_number(object.get(), "clients", report.clients);
    return object;
}

template <typename Event>
void add_events(cJSON *object, const char *name, const std::vector<const Event *> &events,
                json_ptr (*make)(const Event &event))
{
    cJSON *const list = control_add_list(object, name);
    for (const Event *const event : events) {
        control_append(list, make(*event));
    }
}

void add_asked(cJSON *object, const story_round &round)
{
    cJSON *const asked = control_add_object(object, "asked");
    control_add_moment(asked, "at", round.asked);
    control_add_number(asked, "pid", round.pid);
    control_add_number(asked, "uid", round.uid);
    control_add_number(asked, "requestId", round.request_id);
    control_add_number(asked, "timeoutSeconds", round.timeout_s);
}

void add_cause(cJSON *object, const story_round &round)
{
    const story_cause cause = story_cause_of(round);
    if (cause == story_cause::none) {
        control_add_null(object, "cause");
        control_add_null(object, "causeText");
    } else {
        control_add_text(object, "cause", story_cause_name(cause));
        control_add_text(object, "causeText", story_cause_text(round));
    }
}

void add_push_run(cJSON *object, const story_round &round)
{
    cJSON *const run = control_add_object(object, "pushRun");
    const bool is_left_out = round.run_left_out != story_cause::none;
    control_add_bool(run, "begun", round.run != 0 && !is_left_out);
    control_add_text_or_null(run, "why",
                             is_left_out ? story_cause_name(round.run_left_out) : nullptr);
    control_add_text_or_null(run, "whyText", is_left_out ? story_run_text(round).c_str() : nullptr);
}

void add_forgotten(cJSON *object, const story_round_view &view)
{
    cJSON *const forgotten = control_add_object(object, "forgotten");
    control_add_number(forgotten, "pushes", static_cast<double>(view.forgotten_pushes));
    control_add_number(forgotten, "visits", static_cast<double>(view.forgotten_visits));
    control_add_number(forgotten, "reports", static_cast<double>(view.forgotten_reports));
}

/// The oldest ones count as forgotten when there is no room.
template <typename Event>
void keep_newest(std::vector<const Event *> &events, std::uint64_t &forgotten, std::size_t &room)
{
    const std::size_t excess = events.size() - std::min(events.size(), room);
    events.erase(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(excess));
    forgotten += excess;
    room -= events.size();
}

/// What happens while several rounds wait belongs to each of them.
void keep_within(std::size_t &room, story_round_view &view)
{
    keep_newest(view.pushes, view.forgotten_pushes, room);
    keep_newest(view.visits, view.forgotten_visits, room);
    keep_newest(view.reports, view.forgotten_reports, room);
}

json_ptr round_object(const story_round_view &view)
{
    const story_round &round = *view.round;
    json_ptr object = control_object();
    control_add_number(object.get(), "id", static_cast<double>(round.id));
    control_add_text(object.get(), "state", story_state_name(round.state));
    add_asked(object.get(), round);
    control_add_moment(object.get(), "closed", round.closed);
    add_cause(object.get(), round);
    add_push_run(object.get(), round);
    add_events(object.get(), "pushes", view.pushes, push_object);
    add_events(object.get(), "visits", view.visits, visit_object);
    add_events(object.get(), "reports", view.reports, report_object);
    add_forgotten(object.get(), view);
    return object;
}

} // namespace

json_ptr control_rounds_document()
{
    story_view view = story_look();
    std::size_t room = control_rounds_events_limit;
    json_ptr document = control_object();
    control_add_number(document.get(), "version", document_version);
    control_add_moment(document.get(), "now", now());
    control_add_number(document.get(), "latest", static_cast<double>(view.latest));
    cJSON *const rounds = control_add_list(document.get(), "rounds");
    for (story_round_view &round : view.rounds) {
        keep_within(room, round);
        control_append(rounds, round_object(round));
    }
    add_events(document.get(), "visits", view.visits, visit_object);
    return document;
}
