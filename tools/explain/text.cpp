#include "tools/explain/text.h"

#include <algorithm>

#include "tools/explain/story.h"

namespace {

/// Enough to see a phone that comes again and again and is refused.
constexpr std::size_t visits_shown = 5;

std::string round_text(const explain_story &story, const velmctl_paint &paint)
{
    std::string out = paint(velmctl_colour::bold, story.title) + '\n';
    for (const std::string &sentence : story.sentences) {
        out += "  " + sentence + '\n';
    }
    if (!story.ending.empty()) {
        out += "  " + story.ending + '\n';
    }
    if (!story.cause.empty()) {
        out += paint(velmctl_colour::red, story.cause_label) + ' ' + story.cause + '\n';
    }
    if (!story.remedy.empty()) {
        out += paint(velmctl_colour::green, "Remedy:") + ' ' + story.remedy + '\n';
    }
    return out + '\n';
}

std::string visits_text(const control_rounds &rounds, const explain_names &names,
                        const velmctl_paint &paint)
{
    if (rounds.visits.empty()) {
        return "";
    }
    std::string out = paint(velmctl_colour::bold, "Outside of the rounds, newest first:") + '\n';
    std::string remedy;
    for (std::size_t i = 0; i < std::min(visits_shown, rounds.visits.size()); ++i) {
        const control_visit &visit = rounds.visits[i];
        out += "  " + explain_visit(visit, rounds.now, names) + '\n';
        remedy = remedy.empty() ? explain_visit_remedy(visit) : remedy;
    }
    if (!remedy.empty()) {
        out += paint(velmctl_colour::green, "Remedy:") + ' ' + remedy + '\n';
    }
    return out + '\n';
}

template <typename T>
std::vector<T> oldest_first(const std::vector<T> &newest_first)
{
    return {newest_first.rbegin(), newest_first.rend()};
}

void add_line(std::vector<std::string> &out, const std::string &begin, const std::string &text)
{
    if (!text.empty()) {
        out.push_back(begin + text);
    }
}

void add_lines(std::vector<std::string> &out, const std::string &place, const explain_story &story)
{
    for (const std::string &sentence : story.sentences) {
        add_line(out, place, sentence);
    }
    add_line(out, place, story.ending);
    add_line(out, place + story.cause_label + ' ', story.cause);
    add_line(out, place + "Remedy: ", story.remedy);
}

} // namespace

std::string explain_to_text(const control_rounds &rounds, std::size_t count,
                            const explain_names &names, const velmctl_paint &paint)
{
    std::string out;
    for (std::size_t i = std::min(count, rounds.rounds.size()); i > 0; --i) {
        out += round_text(explain_round(rounds.rounds[i - 1], rounds.now, names), paint);
    }
    if (rounds.rounds.empty()) {
        out += "No local client has asked for a location since the daemon was started.\n\n";
    }
    out += visits_text(rounds, names, paint);
    out.pop_back(); // the empty line at the end
    return out;
}

std::vector<std::string> explain_to_lines(const control_rounds &rounds, const explain_names &names,
                                          control_moment today)
{
    std::vector<std::string> out;
    for (const control_visit &visit : oldest_first(rounds.visits)) {
        out.push_back(explain_visit(visit, today, names));
    }
    for (const control_round &round : oldest_first(rounds.rounds)) {
        const explain_story story = explain_round(round, today, names, explain_style::alone);
        out.push_back(story.title);
        add_lines(out, "Round " + std::to_string(round.id) + ": ", story);
    }
    return out;
}
