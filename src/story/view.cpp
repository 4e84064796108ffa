#include "story/view.h"

#include <algorithm>

#include "story/memory.h"
#include "story/story.h"

namespace {

template <typename Event>
bool is_in(const Event &event, std::uint64_t begin, std::uint64_t end)
{
    return event.number >= begin && event.number < end;
}

template <typename Event>
void sort_by_number(std::vector<const Event *> &events)
{
    std::sort(events.begin(), events.end(),
              [](const Event *one, const Event *other) { return one->number < other->number; });
}

/// Those whose numbers are in the interval, oldest first.
template <typename Events, typename Event>
std::uint64_t collect(const Events &events, std::uint64_t begin, std::uint64_t end,
                      std::vector<const Event *> &found)
{
    for (const Event &event : events) {
        if (event.number != 0 && is_in(event, begin, end)) {
            found.push_back(&event);
        }
    }
    sort_by_number(found);
    return end - begin - found.size();
}

std::uint64_t end_of(const story_round &round, const story_interval &interval, std::uint64_t last)
{
    return round.waits ? last + 1 : interval.end;
}

void collect_pushes(const story_memory &kept, story_round_view &view)
{
    for (const story_push &push : kept.pushes) {
        if (push.number != 0 && view.round->run != 0 && push.run == view.round->run) {
            view.pushes.push_back(&push);
        }
    }
    sort_by_number(view.pushes);
    view.forgotten_pushes = view.round->pushes - view.pushes.size();
}

story_round_view round_view(const story_memory &kept, const story_round &round)
{
    story_round_view view{&round, {}, {}, {}, 0, 0, 0};
    collect_pushes(kept, view);
    view.forgotten_visits = collect(kept.visits.places, round.visits.begin,
                                    end_of(round, round.visits, kept.visits.last), view.visits);
    view.forgotten_reports = collect(kept.reports, round.reports.begin,
                                     end_of(round, round.reports, kept.last_report), view.reports);
    return view;
}

} // namespace

story_view story_look()
{
    const story_memory &kept = story_kept();
    story_view view{kept.latest, {}, {}};
    for (const story_round &round : kept.rounds) {
        if (round.id != 0) {
            view.rounds.push_back(round_view(kept, round));
        }
    }
    std::sort(view.rounds.begin(), view.rounds.end(),
              [](const auto &one, const auto &other) { return one.round->id > other.round->id; });
    collect(kept.unasked.places, 1, kept.unasked.last + 1, view.visits);
    std::reverse(view.visits.begin(), view.visits.end());
    return view;
}

std::uint64_t story_latest()
{
    return story_kept().latest;
}

void story_subscribe(void (*callback)())
{
    story_kept().changed = callback;
}

std::size_t story_size()
{
    return sizeof(story_memory);
}
