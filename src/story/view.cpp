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
    const auto &place = events[static_cast<std::size_t>((number - 1) % events.size())];
    return place.number == number ? &place : nullptr;
}

/// The first number that may still be there.
std::uint64_t oldest(std::uint64_t last, std::size_t size)
{
    return last > size ? last - size + 1 : 1;
}

/// The last one goes where its number belongs. They come nearly in order.
void sink(std::vector<const story_visit *> &visits)
{
    for (std::size_t i = visits.size() - 1; i > 0 && visits[i - 1]->number > visits[i]->number;
         --i) {
        std::swap(visits[i - 1], visits[i]);
    }
}

/// Of the visits those with such a number, and those that were late for that round.
void collect_visits(std::span<const story_visit> places, const story_interval &numbers,
                    std::uint64_t round, std::vector<const story_visit *> &found)
{
    for (const story_visit &visit : places) {
        const bool is_late = visit.late != 0 && visit.late == round;
        const bool is_within =
            visit.number >= std::max(numbers.begin, std::uint64_t{1}) && visit.number < numbers.end;
        if (is_within || is_late) {
            found.push_back(&visit);
            sink(found);
        }
    }
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
    collect_visits(kept.visits.places, numbers, view.round->id, view.visits);
    view.forgotten_visits =
        numbers.end - numbers.begin + view.round->late_visits - view.visits.size();
}

void add_reports(const story_memory &kept, story_round_view &view)
{
    const story_interval numbers = so_far(view.round->waits, view.round->reports, kept.last_report);
    const auto kept_since = oldest(kept.last_report, kept.reports.size());
    for (auto number = kept_since; number <= kept.last_report; ++number) {
        const story_report *const report = find(kept.reports, number);
        const bool is_late = report->late == view.round->id;
        if (is_late || (number >= numbers.begin && number < numbers.end)) {
            view.reports.push_back(report);
        }
    }
    view.forgotten_reports =
        numbers.end - numbers.begin + view.round->late_reports - view.reports.size();
}

} // namespace

story_view story_look()
{
    const story_memory &kept = story_kept();
    story_view view{kept.latest, {}, {}};
    for (auto id = kept.last_round; id >= oldest(kept.last_round, kept.rounds.size()); --id) {
        const story_round &round =
            kept.rounds[static_cast<std::size_t>((id - 1) % kept.rounds.size())];
        if (round.id == id) {
            story_round_view one{&round, {}, {}, {}, 0, 0, 0};
            add_pushes(kept, one);
            add_visits(kept, one);
            add_reports(kept, one);
            view.rounds.push_back(std::move(one));
        }
    }
    constexpr std::uint64_t no_round = 0;
    collect_visits(kept.unasked.places, {1, kept.unasked.last + 1}, no_round, view.visits);
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
