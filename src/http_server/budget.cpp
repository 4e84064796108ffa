#include "http_server/budget.h"

#include <algorithm>
#include <vector>

#include "handles/evhtp.h"
#include "http_server/log.h"
#include "http_server/refusals.h"
#include "logger/common_logger.h"
#include "metrics/metrics.h"
#include "story/story.h"

namespace {

struct module_state {
    http_budget_limits limits;
    std::vector<http_budget_share *> shares;
    std::size_t held = 0; // by all of them together
};
module_state state;

enum class whose { all, checked };

/// What the connections of one address hold, or those of them whose request is checked.
std::size_t held_by(in_addr_t address, whose which = whose::all)
{
    std::size_t sum = 0;
    for (const http_budget_share *share : state.shares) {
        if (share->address == address &&
            (which == whose::all || http_intake_is_paused(share->intake))) {
            sum += share->counted;
        }
    }
    return sum;
}

/// Of the address that holds most some connection; null when nobody holds anything.
const http_budget_share *one_of_the_greediest_address()
{
    const http_budget_share *found = nullptr;
    std::size_t most = 0;
    for (const http_budget_share *share : state.shares) {
        const std::size_t size = held_by(share->address);
        if (size > most) {
            found = share;
            most = size;
        }
    }
    return found;
}

enum class candidates { all, not_checked };

const http_budget_share *greediest_of(in_addr_t address, candidates which)
{
    const http_budget_share *found = nullptr;
    for (const http_budget_share *share : state.shares) {
        if (share->address == address && share->counted > (found == nullptr ? 0 : found->counted) &&
            (which == candidates::all || !http_intake_is_paused(share->intake))) {
            found = share;
        }
    }
    return found;
}

/// The address that holds most pays, with the connection of its own that holds most. Nobody else does,
/// however little each of its connections holds. A request that is checked is ended only where all
/// together hold too much. Where such requests alone fill the share of their address, a newcomer
/// beside them is left alone, since closing it would give hardly anything back.
const http_budget_share *who_pays(in_addr_t greediest)
{
    if (state.held > state.limits.held) {
        return greediest_of(greediest, candidates::all);
    }
    const std::size_t limit = state.limits.held_of_address;
    return held_by(greediest) <= limit || held_by(greediest, whose::checked) > limit
               ? nullptr
               : greediest_of(greediest, candidates::not_checked);
}

} // namespace

void http_budget_open(const http_budget_limits &limits)
{
    state.limits = limits;
}

void http_budget_join(http_budget_share *share)
{
    state.shares.push_back(share);
}

void http_budget_leave(http_budget_share *share)
{
    http_budget_count(share, 0);
    std::erase(state.shares, share);
}

void http_budget_count(http_budget_share *share, std::size_t size)
{
    state.held += size - share->counted;
    share->counted = size;
}

void http_budget_keep()
{
    while (state.held > std::min(state.limits.held, state.limits.held_of_address)) {
        const http_budget_share *const greedy = one_of_the_greediest_address();
        const http_budget_share *const victim =
            greedy == nullptr ? nullptr : who_pays(greedy->address);
        if (victim == nullptr) {
            return;
        }
        metrics_count(metric::connections_over_memory);
        story_visit_came({.address = victim->address,
                          .check = story_connections,
                          .why = "it took more memory than there is for its address, or for all"});
        if (http_refusals_tell(victim->address)) {
            LOG_WARN("%s - closing a connection, together they hold %zu bytes, its address %zu: %s",
                     "keep_within_memory", state.held, held_by(victim->address),
                     http_refusals_text(victim->address));
        }
        evhtp_close(victim->connection);
    }
}
