#include "metrics/metrics.h"

namespace {

struct module_state {
    std::array<std::array<std::uint64_t, metrics_statuses.size()>, metrics_routes.size()> replies{};
    std::array<metrics_push_count, metrics_push_statuses> pushes{};
};
module_state state;

constexpr std::size_t route_other = metrics_routes.size() - 2;
constexpr std::size_t route_none = metrics_routes.size() - 1;
static_assert(metrics_routes[route_other] == "other" && metrics_routes[route_none] == "none");

std::size_t route_index(std::string_view path)
{
    if (path.empty()) {
        return route_none;
    }
    const auto *const end = metrics_routes.begin() + route_other;
    return static_cast<std::size_t>(std::find(metrics_routes.begin(), end, path) -
                                    metrics_routes.begin());
}

std::size_t status_index(int status)
{
    const auto *const end = metrics_statuses.end() - 1;
    return static_cast<std::size_t>(std::find(metrics_statuses.begin(), end, status) -
                                    metrics_statuses.begin());
}

} // namespace

void metrics_count_reply(std::string_view path, int status) noexcept
{
    ++state.replies[route_index(path)][status_index(status)];
}

std::uint64_t metrics_replies(std::size_t route, std::size_t status) noexcept
{
    return state.replies[route][status];
}

void metrics_count_push(int status) noexcept
{
    for (metrics_push_count &one : state.pushes) {
        const bool is_last = &one == &state.pushes.back();
        if (one.pushes == 0 || one.status == status || is_last) {
            one.status = is_last ? -1 : status;
            ++one.pushes;
            return;
        }
    }
}

const std::array<metrics_push_count, metrics_push_statuses> &metrics_pushes() noexcept
{
    return state.pushes;
}
