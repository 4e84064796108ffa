#include "ipc/places.h"

#include <algorithm>
#include <tuple>

namespace {

auto places_of(std::span<const velm_ipc_place> places, uid_t uid)
{
    return std::count_if(places.begin(), places.end(), [uid](const velm_ipc_place &place) {
        return place.may_go && place.uid == uid;
    });
}

} // namespace

std::optional<std::size_t> velm_ipc_place_to_give(std::span<const velm_ipc_place> places)
{
    // The lower goes first.
    const auto rank = [places](const velm_ipc_place &place) {
        return std::tuple{-places_of(places, place.uid), place.has_open_request, place.heard};
    };
    std::optional<std::size_t> found;
    for (std::size_t i = 0; i < places.size(); ++i) {
        if (places[i].may_go && (!found || rank(places[i]) < rank(places[*found]))) {
            found = i;
        }
    }
    return found;
}
