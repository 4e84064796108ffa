#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <vector>

/// The requests of local clients that wait for an answer, in the order in which they came. Loop thread only.

struct velm_conn;

struct velm_ipc_open_request {
    velm_conn *conn;      // borrowed; a connection outlives its requests
    std::uint32_t seq;    // our number for it
    std::uint32_t id;     // the client's number for it
    std::time_t deadline; // by the clock on the wall
};

/// Told of each request that is removed. It must not call the list.
using velm_ipc_removed_handler = void (*)(const velm_ipc_open_request &request);

class velm_ipc_open_requests {
  public:
    void add(const velm_ipc_open_request &request);

    /// Removes the request with that number and gives it; none when it is not there.
    [[nodiscard]] std::optional<velm_ipc_open_request> take(std::uint32_t seq);

    /// Removes those whose connection has closed.
    void remove_of_closed(velm_ipc_removed_handler removed);

    /// Removes those that have waited too long at `now`. When the clock was set back behind the arrival of a
    /// request, nobody knows how long that has waited, and it is removed too.
    void remove_late(std::time_t now, velm_ipc_removed_handler removed);

    [[nodiscard]] std::size_t size() const
    {
        return requests_.size();
    }

    /// The deadline of the oldest one; none without requests.
    [[nodiscard]] std::optional<std::time_t> first_deadline() const
    {
        return requests_.empty() ? std::nullopt : std::optional{requests_.front().deadline};
    }

  private:
    using condition = bool (*)(const velm_ipc_open_request &request, std::time_t now);
    void remove_those(condition is_meant, std::time_t now, velm_ipc_removed_handler removed);

    std::vector<velm_ipc_open_request> requests_;
};
