#include "tools/explain/story.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "tools/explain/remedies.h"
#include "tools/terminal/text.h"

namespace {

std::string shown(const std::optional<std::string> &text)
{
    return velmctl_text_for_terminal(text.value_or(""));
}

/// Open rounds end, so that is told only where the story is told as a whole.
std::string open_text(const control_round &round, const explain_speaker &speaker,
                      explain_style style)
{
    const std::chrono::seconds wanted{round.asked.timeout_s};
    return style == explain_style::told && wanted.count() > 0
               ? "It is still open, until " + speaker.time(round.asked.at + wanted) + '.'
               : "";
}

bool is_late(const control_round &round)
{
    return round.closed.has_value() &&
           *round.closed > round.asked.at + std::chrono::seconds{round.asked.timeout_s};
}

std::string ending_of(const control_round &round, const explain_speaker &speaker,
                      explain_style style)
{
    const std::string at =
        (round.closed.has_value() ? " at " + speaker.time(*round.closed) : "") + '.';
    if (round.state == "open") {
        return open_text(round, speaker, style);
    }
    if (round.state == "answered") {
        return (is_late(round) ? "The request was answered late, after its time was up,"
                               : "The request was answered") +
               at;
    }
    if (round.state == "expired") {
        return "The time for the request was up" + at;
    }
    if (round.cause == "daemon reloaded") {
        return "The daemon ended the client's connection" + at;
    }
    if (round.state == "client gone") {
        return "The process that asked went away" + at;
    }
    if (round.state == "refused") {
        return "The request was refused" + at;
    }
    return "The request ended as " + shown(round.state) + at;
}

std::string title_of(const control_round &round, const explain_speaker &speaker)
{
    const control_asked &asked = round.asked;
    return "Round " + std::to_string(round.id) + ": process " + std::to_string(asked.pid) +
           " (user " + std::to_string(asked.uid) + ") asked at " + speaker.time(asked.at) +
           " for a location within " + std::to_string(asked.timeout_s) + " s.";
}

/// Something that happened; on the same moment the kinds keep this order.
struct event {
    control_moment at;
    const control_push *push = nullptr;
    const control_visit *visit = nullptr;
    const control_report *report = nullptr;
};

std::vector<event> events_of(const control_round &round)
{
    std::vector<event> events;
    for (const control_push &push : round.pushes) {
        events.push_back({push.at, &push});
    }
    for (const control_visit &visit : round.visits) {
        events.push_back({visit.at, nullptr, &visit});
    }
    for (const control_report &report : round.reports) {
        events.push_back({report.at, nullptr, nullptr, &report});
    }
    std::stable_sort(events.begin(), events.end(),
                     [](const event &a, const event &b) { return a.at < b.at; });
    return events;
}

/// The ending goes among them when something came after it.
std::vector<std::string> sentences_of(const control_round &round, explain_speaker &speaker,
                                      std::string &ending)
{
    std::vector<std::string> out;
    if (!round.run.begun && (round.run.why.has_value() || round.run.why_text.has_value())) {
        const auto &why = round.run.why_text.has_value() ? round.run.why_text : round.run.why;
        out.push_back("No push was sent: " + shown(why) + '.');
    }
    if (round.forgotten > 0) {
        out.push_back("The daemon has forgotten " + std::to_string(round.forgotten) +
                      " more of what happened.");
    }
    for (const event &one : events_of(round)) {
        if (!ending.empty() && round.state == "answered" && one.at > *round.closed) {
            out.push_back(std::exchange(ending, ""));
            speaker.begin_anew();
        }
        out.push_back(one.push != nullptr    ? speaker.push(*one.push)
                      : one.visit != nullptr ? speaker.visit(*one.visit)
                                             : speaker.report(*one.report));
    }
    return out;
}

bool has_failed(const control_push &push)
{
    constexpr std::int64_t ok = 200;
    return push.status != ok && (push.status.has_value() || push.error.has_value());
}

/// Of the last push that was not taken.
std::string push_remedy(const control_round &round)
{
    const auto failed = std::find_if(round.pushes.rbegin(), round.pushes.rend(), has_failed);
    return failed == round.pushes.rend()
               ? ""
               : explain_push_remedy(failed->status, failed->error.value_or(""));
}

/// The daemon counts these: anybody may ask for "/info".
bool is_of_refused_phone(const control_visit &visit)
{
    const bool has_id = visit.device_id.has_value() && !visit.device_id->empty();
    return !visit.accepted && visit.route.has_value() && (has_id || visit.route != "/info");
}

/// Of the visit that the cause is about: the phone that was refused last. The same visit again is in the
/// place of its first time.
std::string visits_remedy(const control_round &round)
{
    const control_visit *last = nullptr;
    for (const control_visit &visit : round.visits) {
        if (is_of_refused_phone(visit) && (last == nullptr || visit.until >= last->until)) {
            last = &visit;
        }
    }
    return last == nullptr ? "" : explain_visit_remedy(*last);
}

std::string cause_text(const control_round &round)
{
    if (round.cause_text.has_value()) {
        return shown(round.cause_text);
    }
    const explain_remedy *const row = explain_cause(round.cause.value_or(""));
    return row != nullptr ? row->what : shown(round.cause);
}

std::string remedy_of(const control_round &round)
{
    if (round.cause == "every push failed") {
        return push_remedy(round);
    }
    if (round.cause == "phones refused") {
        return visits_remedy(round);
    }
    const explain_remedy *const row = explain_cause(round.cause.value_or(""));
    return row != nullptr ? row->remedy : "";
}

/// A refusal that the phone has not overcome at the same route.
bool is_refused_so_far(const control_round &round)
{
    const control_visit *last = nullptr;
    for (const control_visit &visit : round.visits) {
        if (is_of_refused_phone(visit) && (last == nullptr || visit.until >= last->until)) {
            last = &visit;
        }
    }
    return last != nullptr &&
           std::none_of(round.visits.begin(), round.visits.end(), [last](const auto &visit) {
               return visit.accepted && visit.route == last->route && visit.until >= last->until;
           });
}

/// The daemon tells the cause when a round has ended. What stands in the way is known before.
control_round with_cause_so_far(control_round round)
{
    const bool all_failed = !round.pushes.empty() && std::ranges::all_of(round.pushes, has_failed);
    if (is_refused_so_far(round)) {
        round.cause = "phones refused";
    } else if (!round.run.begun && round.run.why.has_value()) {
        round.cause = round.run.why;
        round.cause_text = round.run.why_text;
    } else if (all_failed) {
        round.cause = "every push failed";
    }
    return round;
}

/// A sentence of its own.
std::string as_sentence(std::string text)
{
    if (text.empty()) {
        return text;
    }
    if (text.front() >= 'a' && text.front() <= 'z') {
        text.front() = static_cast<char>(text.front() - 'a' + 'A');
    }
    return text.back() == '.' ? text : text + '.';
}

} // namespace

explain_story explain_round(const control_round &round, control_moment now,
                            const explain_names &names, explain_style style)
{
    explain_speaker speaker{now, names, style};
    explain_story story{title_of(round, speaker), {}, ending_of(round, speaker, style), "", "", ""};
    story.sentences = sentences_of(round, speaker, story.ending);
    // Told alone, each thing that happens is a sentence of its own already.
    const bool is_open =
        round.state == "open" && !round.cause.has_value() && style == explain_style::told;
    const control_round told = is_open ? with_cause_so_far(round) : round;
    if (told.cause.has_value()) {
        story.cause_label = is_open ? "Likely cause so far:" : "Likely cause:";
        story.cause = as_sentence(cause_text(told));
        story.remedy = remedy_of(told);
    }
    return story;
}

std::string explain_visit(const control_visit &visit, control_moment now,
                          const explain_names &names)
{
    return explain_speaker{now, names, explain_style::alone}.visit(visit);
}

std::string explain_visit_remedy(const control_visit &visit)
{
    return visit.accepted ? ""
                          : explain_check_remedy(visit.check.value_or(""), visit.why.value_or(""));
}
