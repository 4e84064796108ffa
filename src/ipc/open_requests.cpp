#include "ipc/open_requests.h"

#include <algorithm>
#include <iterator>

#include "velm_conn.h"
#include "velm_ipc_cmd.h"

namespace {

/// Also when the clock stepped back behind the request's arrival: it may have waited for long.
bool has_waited_too_long(const velm_ipc_open_request &request, std::time_t now)
{
    return now > request.deadline || request.deadline > now + velm_ipc_cmd_request_lifetime_s;
}

bool has_closed(const velm_ipc_open_request &request, std::time_t /*now*/)
{
    return velm_conn_is_closed(request.conn);
}

} // namespace

void velm_ipc_open_requests::remove_those(condition is_meant, std::time_t now,
                                          velm_ipc_removed_handler removed)
{
    std::erase_if(requests_, [is_meant, now, removed](const velm_ipc_open_request &request) {
        const bool is_removed = is_meant(request, now);
        if (is_removed) {
            removed(request);
        }
        return is_removed;
    });
}

void velm_ipc_open_requests::add(const velm_ipc_open_request &request)
{
    requests_.push_back(request);
}

/// Most are taken back as soon as they have come, so the last is looked at first.
std::optional<velm_ipc_open_request> velm_ipc_open_requests::take(std::uint32_t seq)
{
    const auto found =
        std::find_if(requests_.rbegin(), requests_.rend(),
                     [seq](const velm_ipc_open_request &request) { return request.seq == seq; });
    if (found == requests_.rend()) {
        return std::nullopt;
    }
    const velm_ipc_open_request request = *found;
    requests_.erase(std::next(found).base());
    return request;
}

void velm_ipc_open_requests::remove_of_closed(velm_ipc_removed_handler removed)
{
    remove_those(has_closed, 0, removed);
}

void velm_ipc_open_requests::remove_late(std::time_t now, velm_ipc_removed_handler removed)
{
    remove_those(has_waited_too_long, now, removed);
    if (requests_.empty()) {
        requests_.shrink_to_fit(); // a flood leaves nothing behind
    }
}
