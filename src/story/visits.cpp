#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

#include "metrics/metrics.h"
#include "request/paths.h"
#include "story/memory.h"
#include "story/story.h"
#include "text/cut.h"

/// What comes to the HTTPS server, phones and others.

namespace {

bool is_same(const char *one, const char *other)
{
    return one == other || (one != nullptr && other != nullptr && std::strcmp(one, other) == 0);
}

/// What the check saw may differ: the last of it is kept.
bool is_same(const story_visit &visit, const story_visit_note &note, const char *device_id)
{
    return visit.address == note.address && visit.status == note.status &&
           is_same(visit.route, note.route) && is_same(visit.check, note.check) &&
           is_same(visit.why, note.why) && visit.device_id[0] == device_id[0] &&
           (*device_id == '\0' || std::strcmp(visit.device_id, device_id) == 0);
}

struct own_places {
    std::size_t count = 0;
    story_visit *oldest = nullptr;
    story_visit *newest = nullptr;
    story_visit *oldest_of_all = nullptr;
};

own_places places_look(std::span<story_visit> places, in_addr_t address)
{
    own_places own;
    for (story_visit &place : places) {
        if (own.oldest_of_all == nullptr || place.number < own.oldest_of_all->number) {
            own.oldest_of_all = &place;
        }
        if (place.number == 0 || place.address != address) {
            continue;
        }
        ++own.count;
        if (own.oldest == nullptr || place.number < own.oldest->number) {
            own.oldest = &place;
        }
        if (own.newest == nullptr || place.number > own.newest->number) {
            own.newest = &place;
        }
    }
    return own;
}

void visit_fill(story_visit &visit, const story_visit_note &note, const char *device_id)
{
    visit.at = story_now();
    visit.until = visit.at;
    visit.times = 1;
    visit.address = note.address;
    visit.route = note.route;
    visit.check = note.check;
    visit.why = note.why;
    visit.status = note.status;
    visit.late = 0;
    text_cut(visit.device_id, device_id);
    text_cut(visit.hint, note.hint);
}

void visit_repeat(story_visit &visit, const story_visit_note &note)
{
    visit.until = story_now();
    ++visit.times;
    if (note.hint != nullptr) {
        text_cut(visit.hint, note.hint);
    }
}

template <std::size_t Size>
bool may_repeat(const story_visits<Size> &visits, const story_visit &visit)
{
    return visit.number > visits.repeats_end_with;
}

/// One address can take a quarter of the places, so that a stranger cannot make us forget the phones.
template <std::size_t Size>
story_visit &visits_add(story_visits<Size> &visits, const story_visit_note &note,
                        const char *device_id)
{
    std::uint8_t &place_touched = visits.touched[ntohl(note.address) % visits.touched.size()];
    story_visit &touched = visits.places[place_touched];
    if (touched.number != 0 && may_repeat(visits, touched) && is_same(touched, note, device_id)) {
        visit_repeat(touched, note); // what a flood does, without a look at the others
        return touched;
    }
    const own_places own = places_look(visits.places, note.address);
    const bool repeats = own.newest != nullptr && may_repeat(visits, *own.newest) &&
                         is_same(*own.newest, note, device_id);
    story_visit *const place = repeats                 ? own.newest
                               : own.count >= Size / 4 ? own.oldest
                                                       : own.oldest_of_all;
    place_touched = static_cast<std::uint8_t>(place - visits.places.data());
    if (repeats) {
        visit_repeat(*place, note);
        return *place;
    }
    place->number = ++visits.last;
    visit_fill(*place, note, device_id);
    return *place;
}

/// Of a round that another phone has answered.
void visit_belongs_to_late(story_visit &visit, story_round &round)
{
    const auto id = static_cast<std::uint32_t>(round.id);
    round.late_visits += visit.late == id ? 0 : 1;
    visit.late = id;
}

bool is_route(const char *route, std::string_view name)
{
    return route != nullptr && route == name;
}

/// Anybody may ask for "/info".
bool is_of_phone(const story_visit_note &note, const char *device_id)
{
    return note.route != nullptr && (*device_id != '\0' || !is_route(note.route, "/info"));
}

bool is_about_location(const story_visit_note &note)
{
    return note.check != nullptr && std::strcmp(note.check, story_location_check) == 0;
}

void round_count(story_round &round, const story_visit_note &note, const char *device_id)
{
    if (!is_about_location(note)) {
        ++round.visited;
    }
    if (note.check != nullptr && note.route == nullptr) {
        round.stopped_why = note.why;
    }
    if (!is_of_phone(note, device_id)) {
        return;
    }
    if (!is_about_location(note)) {
        ++round.came;
    }
    if (note.check != nullptr) {
        round.refused_route = note.route;
        round.refused_why = note.why;
        return;
    }
    if (is_route(note.route, "/location")) {
        ++round.posted;
    }
    if (is_same(round.refused_route, note.route)) {
        round.refused_route = nullptr;
        round.refused_why = nullptr;
    }
}

void refusal_count(const char *check)
{
    if (check == nullptr) {
        return;
    }
    const auto *const found = std::find(std::begin(story_checks), std::end(story_checks), check);
    if (found != std::end(story_checks)) {
        metrics_count(metric::refusals_first, static_cast<std::size_t>(found - story_checks));
    }
}

/// Whatever is asked at the moment: it changes who is paired, or may be the reason why nobody gets
/// further.
bool matters_always(const story_visit_note &note)
{
    return note.route == nullptr || is_route(note.route, "/pair") ||
           is_route(note.route, "/unpair");
}

} // namespace

const char *story_route_of(const char *path)
{
    for (std::size_t i = 0; path != nullptr && i < std::size(request_paths); ++i) {
        if (metrics_routes[i] == path) {
            return metrics_routes[i].data(); // of a literal
        }
    }
    return nullptr;
}

void story_visit_came(const story_visit_note &note)
{
    story_memory &kept = story_kept();
    char device_id[sizeof(story_visit::device_id)];
    device_id[0] = '\0';
    if (note.device_id != nullptr) {
        text_cut(device_id, note.device_id);
    }
    refusal_count(note.check);
    if (note.check == nullptr && *device_id != '\0' && is_route(note.route, "/location")) {
        ++kept.posted;
    }
    story_round *const late = story_round_for_late(device_id);
    if (kept.open > 0 || late != nullptr) {
        story_visit &visit = visits_add(kept.visits, note, device_id);
        if (late != nullptr) {
            visit_belongs_to_late(visit, *late);
        }
        for (story_round &round : kept.rounds) {
            if (round.waits && round.state == story_state::open) {
                round_count(round, note, device_id);
            }
        }
    }
    if ((kept.open == 0 && late == nullptr) || matters_always(note)) {
        visits_add(kept.unasked, note, device_id);
    }
    story_changed();
}
