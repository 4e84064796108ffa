#include "tools/explain/story.h"

#include <algorithm>

#include "tools/explain/remedies.h"
#include "tools/terminal/text.h"

namespace {

std::string shown(const std::optional<std::string> &text)
{
    return velmctl_text_for_terminal(text.value_or(""));
}

std::string ending_of(const control_round &round, const explain_speaker &speaker)
{
    const std::string at =
        (round.closed.has_value() ? " at " + speaker.time(*round.closed) : "") + '.';
    if (round.state == "open") {
        return "";
    }
    if (round.state == "answered") {
        return "The request was answered" + at;
    }
    if (round.state == "expired") {
        return "The time for the request was up" + at;
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

std::vector<std::string> sentences_of(const control_round &round, explain_speaker &speaker)
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
    return failed == round.pushes.rend() ? "" : explain_push_remedy(failed->status);
}

/// Of the last visit that was refused.
std::string visits_remedy(const control_round &round)
{
    const auto refused = std::find_if(round.visits.rbegin(), round.visits.rend(),
                                      [](const control_visit &visit) { return !visit.accepted; });
    return refused == round.visits.rend() ? "" : explain_visit_remedy(*refused);
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
    explain_story story{title_of(round, speaker), sentences_of(round, speaker),
                        ending_of(round, speaker), "", ""};
    if (round.cause.has_value()) {
        story.cause = as_sentence(cause_text(round));
        story.remedy = remedy_of(round);
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
    const explain_remedy *const row =
        visit.accepted ? nullptr : explain_check(visit.check.value_or(""));
    return row != nullptr ? row->remedy : "";
}
