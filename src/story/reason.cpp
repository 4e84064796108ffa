#include "story/reason.h"

#include <utility>

namespace {

struct module_state {
    story_reason reason;
};
module_state state;

} // namespace

void story_reason_set(const char *text, std::int32_t status)
{
    state.reason = {text, status};
}

story_reason story_reason_take()
{
    return std::exchange(state.reason, {});
}
