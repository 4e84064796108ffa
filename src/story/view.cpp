#include "story/view.h"

#include <algorithm>
#include <span>
#include <utility>

#include "story/memory.h"

namespace {

/// Of events that are kept in a ring, the one with this number; null when it is forgotten.
template <typename Events>
auto find(const Events &events, std::uint64_t number)
{
    const auto &place = events[(number - 1) % events.size()];
    return place.number == number ? &place : nullptr;
}

/// The first number that may still be there.
std::uint64_t oldest(std::uint64_t last, std::size_t size)
{
    return last > size ? last - size + 1 : 1;
}

void collect_visits(std::span<const story_visit> places, const story_interval &numbers,
                    std::vector<const story_visit *> &found)
{
    for (const story_visit &visit : places) {
        if (visit.number >= std::max(numbers.begin, std::uint64_t{1}) &&
            visit.number < numbers.end) {
            found.push_back(&visit);
        }
    }
    std::sort(found.begin(), found.end(), [](const story_visit *one, const story_visit *other) {
        return one->number < other->number;
    });
}

/// As far as it goes by now.
story_interval so_far(bool goes_on, const story_interval &interval, std::uint64_t last)
{
    return {interval.begin, goes_on ? last + 1 : interval.end};
}

void add_pushes(const story_memory &kept, story_round_view &view)
{
    for (auto number = oldest(kept.last_push, kept.pushes.size()); number <= kept.last_push;
         ++number) {
        const story_push *const push = find(kept.pushes, number);
        if (push != nullptr && view.round->run != 0 && push->run == view.round->run) {
            view.pushes.push_back(push);
        }
    }
    view.forgotten_pushes = view.round->pushes - view.pushes.size();
}

void add_visits(const story_memory &kept, story_round_view &view)
{
    const story_interval numbers =
        so_far(view.round->state == story_state::open, view.round->visits, kept.visits.last);
    collect_visits(kept.visits.places, numbers, view.visits);
    view.forgotten_visits = numbers.end - numbers.begin - view.visits.size();
}

void add_reports(const story_memory &kept, story_round_view &view)
{
    const story_interval numbers = so_far(view.round->waits, view.round->reports, kept.last_report);
    const auto kept_since = oldest(kept.last_report, kept.reports.size());
    for (auto number = std::max(numbers.begin, kept_since); number < numbers.end; ++number) {
        view.reports.push_back(find(kept.reports, number));
    }
    view.forgotten_reports = numbers.end - numbers.begin - view.reports.size();
}

} // namespace

story_view story_look()
{
    const story_memory &kept = story_kept();
    story_view view{kept.latest, {}, {}};
    for (auto id = kept.last_round; id >= oldest(kept.last_round, kept.rounds.size()); --id) {
        const story_round &round = kept.rounds[(id - 1) % kept.rounds.size()];
        if (round.id == id) {
            story_round_view one{&round, {}, {}, {}, 0, 0, 0};
            add_pushes(kept, one);
            add_visits(kept, one);
            add_reports(kept, one);
            view.rounds.push_back(std::move(one));
        }
    }
    collect_visits(kept.unasked.places, {1, kept.unasked.last + 1}, view.visits);
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
