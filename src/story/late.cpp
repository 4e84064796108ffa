#include <algorithm>
#include <chrono>

#include "story/memory.h"
#include "story/story.h"
#include "text/cut.h"

/// Phones that were pushed to and come after another one has answered.

namespace {

bool was_pushed_to(const story_round &round, std::uint32_t device)
{
    for (const story_push &push : story_kept().pushes) {
        if (push.number != 0 && push.run == round.run && push.device == device) {
            return true;
        }
    }
    return false;
}

bool was_answered_just_now(const story_round &round, std::chrono::steady_clock::time_point now)
{
    return round.id != 0 && !round.waits && round.state == story_state::answered &&
           now - round.answered_steady < story_late_limit;
}

} // namespace

std::uint32_t story_device_of(const char *device_id)
{
    constexpr std::uint32_t basis = 2166136261U;
    constexpr std::uint32_t prime = 16777619U;
    char kept_id[sizeof(story_visit::device_id)];
    text_cut(kept_id, device_id);
    std::uint32_t number = basis; // FNV-1a
    for (const char *c = kept_id; *c != '\0'; ++c) {
        number = (number ^ static_cast<unsigned char>(*c)) * prime;
    }
    return *kept_id == '\0' ? 0 : std::max(number, 1U);
}

story_round *story_round_for_late(const char *device_id)
{
    const std::uint32_t device = story_device_of(device_id);
    if (device == 0) {
        return nullptr;
    }
    const auto now = std::chrono::steady_clock::now();
    story_round *found = nullptr;
    for (story_round &round : story_kept().rounds) {
        if (round.run != 0 && was_answered_just_now(round, now) &&
            (found == nullptr || round.id > found->id) && was_pushed_to(round, device)) {
            found = &round;
        }
    }
    return found;
}
