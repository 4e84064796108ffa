#include "ipc/places.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

constexpr uid_t root = 0;
constexpr uid_t guest = 1000;
constexpr bool open_request = true;

struct place_case {
    const char *name;
    std::vector<velm_ipc_place> places;
    std::optional<std::size_t> given;
};
class PlaceToGive : public testing::TestWithParam<place_case> {};

TEST_P(PlaceToGive, IsThisOne)
{
    EXPECT_EQ(velm_ipc_place_to_give(GetParam().places), GetParam().given);
}

// The number of the last request, or of the arrival: the lower, the longer quiet.
INSTANTIATE_TEST_SUITE_P(
    Clients, PlaceToGive,
    testing::Values(
        place_case{"NoneOfNone", {}, std::nullopt},
        place_case{"TheQuietestOfOneUser",
                   {{root, 7, false, true}, {root, 3, false, true}, {root, 5, false, true}},
                   1},
        place_case{"OfTheUserWithMostPlacesThoughAnotherIsQuieter",
                   {{root, 1, false, true}, {guest, 9, false, true}, {guest, 8, false, true}},
                   2},
        place_case{"OneWithoutAnOpenRequestThoughAnotherIsQuieter",
                   {{root, 1, open_request, true}, {root, 2, false, true}},
                   1},
        place_case{"OneWithAnOpenRequestWhenAllHaveOne",
                   {{root, 4, open_request, true}, {root, 2, open_request, true}},
                   1},
        place_case{"OfTheGreedyUserThoughAllItsRequestsAreOpen",
                   {{root, 1, false, true},
                    {guest, 3, open_request, true},
                    {guest, 2, open_request, true}},
                   2},
        place_case{"OfUsersWithEquallyManyTheQuietest",
                   {{root, 6, false, true}, {guest, 4, false, true}},
                   1},
        place_case{"NeverOneThatMayNotGo", {{root, 1, false, false}, {root, 2, false, true}}, 1},
        place_case{"NoneWhenNoneMayGo", {{root, 1, false, false}}, std::nullopt}),
    [](const auto &row) { return std::string{row.param.name}; });

} // namespace
