#include "story/told.h"

namespace {

constexpr story_told nothing;

struct module_state {
    const story_told *told = &nothing;
};
module_state state;

} // namespace

story_telling::story_telling(const story_told &told)
{
    state.told = &told;
}

story_telling::~story_telling()
{
    state.told = &nothing;
}

const story_told &story_told_now()
{
    return *state.told;
}
