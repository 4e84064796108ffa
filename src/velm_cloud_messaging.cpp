#include "velm_cloud_messaging.h"

#include <chrono>
#include <ctime>
#include <optional>

#include "cutils/moment.h"
#include "logger/fatal.h"
#include "story/story.h"
#include "velm_fcm_messaging.h"
#include "velm_nvram_pairings.h"

namespace {

constexpr char log_category[] = "velm_cloud_messaging";

constexpr std::chrono::seconds push_interval{60};

struct module_state {
    const velm_config *config = nullptr;
    std::optional<velm_moment> last_push;
};
module_state state;

} // namespace

void velm_cloud_messaging_init(const velm_config *config)
{
    LOG_TRACE("%s", __func__);
    state = {};
    state.config = config;
    velm_fcm_messaging_init(config);
}

void velm_cloud_messaging_push_to_all(std::uint32_t timeout, std::uint32_t type)
{
    if (velm_nvram_pairings_count_pairings() == 0) {
        LOG_ERROR("%s - no pairings or tokens", __func__);
        story_run_left_out(story_cause::no_pairings);
        return;
    }
    if (state.last_push.has_value() && velm_moment_is_within(*state.last_push, push_interval)) {
        LOG_WARN("%s - too often (limit %d)", __func__, static_cast<int>(push_interval.count()));
        story_run_left_out(story_cause::too_soon);
        return;
    }
    state.last_push = velm_moment_now();
    story_run_begins();
    velm_fcm_messaging_push_to_all(timeout, type);
}

json_ptr velm_cloud_messaging_generate_push_content(const cJSON *pairing, std::uint32_t timeout,
                                                    std::uint32_t type)
{
    REQUIRE_NOT_NULL(pairing, "pairing");
    return velm_push_content_make(*state.config, pairing, timeout, type);
}
